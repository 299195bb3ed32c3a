// SPDX-License-Identifier: Apache-2.0
// The page of a report: HTML that is also well-formed XML, with drawings in SVG, without script and
// without other files.
#ifndef KESTREL_TOOLS_REPORT_PAGE_H
#define KESTREL_TOOLS_REPORT_PAGE_H

#include <string>

#include "tools/report/data.h"

namespace tool {

std::string render_page(const ReportData& data);

}  // namespace tool

#endif
