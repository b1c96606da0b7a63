// The page's template, style and script: page/page.html, page/page.css and the modules beside them, as they
// were when this was built.
#pragma once

#include <string_view>

namespace qel::vexa::report {

extern const std::string_view page_html;
extern const std::string_view page_css;
extern const std::string_view page_js;

}  // namespace qel::vexa::report
