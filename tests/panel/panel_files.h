/*
 * panel_files: the panel's three files in a folder of the test's own.
 *
 * While one lives, the panel's paths lead into its folder, which is empty at first.
 */
#pragma once

#include <string>
#include <string_view>

#include "tests/support/temp_dir.h"

namespace kolmo::testing
{

class PanelFiles
{
public:
    PanelFiles();
    ~PanelFiles();
    PanelFiles(const PanelFiles &) = delete;
    PanelFiles &operator=(const PanelFiles &) = delete;

    void write_conf(std::string_view content) const { (void)folder_.write("qsx.conf", content); }
    void write_dsn(std::string_view content) const { (void)folder_.write("dsn.ini", content); }
    void write_shadow(std::string_view content) const { (void)folder_.write("qsx.shadow", content); }

    [[nodiscard]] const std::string &conf_path() const { return conf_; }
    [[nodiscard]] const std::string &dsn_path() const { return dsn_; }
    [[nodiscard]] const std::string &shadow_path() const { return shadow_; }

    /* What LogCapture hears each time when there is no configuration file. */
    [[nodiscard]] std::string missing_conf_line() const;

private:
    TempDir folder_;
    std::string conf_;
    std::string dsn_;
    std::string shadow_;
    const char *saved_conf_path_;
    const char *saved_dsn_path_;
    const char *saved_shadow_path_;
};

} // namespace kolmo::testing
