/*
 * ini_file: single values out of an INI file.
 */
#ifndef KOLMO_COMMON_INI_FILE_H
#define KOLMO_COMMON_INI_FILE_H

namespace kolmo
{

[[nodiscard]] char *ini_get_value(const char *path, const char *section, const char *key);

} // namespace kolmo

#endif
