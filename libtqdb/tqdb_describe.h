// The schema in words, for docs/database.md.
#pragma once

#include <string>

namespace tqdb {

// Tables, columns and views as Markdown.
std::string schema_markdown();

} // namespace tqdb
