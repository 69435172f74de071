#include "tests/panel/panel_files.h"

#include "panel/panel_conf.h"
#include "panel/panel_credentials.h"

namespace kolmo::testing
{

PanelFiles::PanelFiles()
    : conf_(folder_.path("qsx.conf")), dsn_(folder_.path("dsn.ini")), shadow_(folder_.path("qsx.shadow")),
      saved_conf_path_(panel_conf_path), saved_dsn_path_(panel_dsn_path),
      saved_shadow_path_(panel_shadow_path)
{
    panel_conf_path = conf_.c_str();
    panel_dsn_path = dsn_.c_str();
    panel_shadow_path = shadow_.c_str();
}

PanelFiles::~PanelFiles()
{
    panel_conf_path = saved_conf_path_;
    panel_dsn_path = saved_dsn_path_;
    panel_shadow_path = saved_shadow_path_;
}

std::string PanelFiles::missing_conf_line() const
{
    return "12 unable to open configuration file " + conf_ + ": No such file or directory\n";
}

} // namespace kolmo::testing
