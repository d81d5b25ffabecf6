// The exporters, each in its own file; make_exporter() (export.h) chooses.
#pragma once

#include "export.h"

namespace tqread {

std::unique_ptr<exporter> make_chrome_exporter(const name_table &names, wllb_sink sink);
std::unique_ptr<exporter> make_speedscope_exporter(const test_run &run, const name_table &names, wllb_sink sink);
std::unique_ptr<exporter> make_folded_exporter(export_weight weight, const name_table &names, wllb_sink sink);
std::unique_ptr<exporter> make_html_exporter(const name_table &names, wllb_sink sink);

} // namespace tqread
