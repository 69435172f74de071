# What is installed, on top of the optimisation: hardening, and the same bytes from whatever folder.
option(KOLMO_HARDEN "Build with the compiler's and the linker's hardening" OFF)

# Neither a path of the build nor one of the sources stays in what is built, except where a debugger is to find
# them without being told.
target_compile_options(kolmo_build INTERFACE $<$<NOT:$<CONFIG:Debug>>:
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=.>)

# Programs are linked to whole libraries, and keep what they call of them.
target_compile_options(kolmo_build INTERFACE $<$<NOT:$<CONFIG:Debug>>:-ffunction-sections -fdata-sections>)
target_link_options(kolmo_build INTERFACE $<$<NOT:$<CONFIG:Debug>>:LINKER:--gc-sections>)

if(KOLMO_HARDEN)
  # The first is undefined because a distribution's own flags may define it, to another value.
  target_compile_options(kolmo_build INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -D_GLIBCXX_ASSERTIONS)
  target_link_options(kolmo_build INTERFACE LINKER:-z,relro,-z,now)
  # Not every processor has all of these.
  include(CheckCXXCompilerFlag)
  foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
    string(MAKE_C_IDENTIFIER KOLMO_HAS${flag} known)
    check_cxx_compiler_flag(${flag} ${known})
    if(${known})
      target_compile_options(kolmo_build INTERFACE ${flag})
    endif()
  endforeach()
endif()
