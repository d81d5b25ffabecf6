// What is wrong with a keyword file, and the keywords explained: for tqcheck and for warnings at start.
//   In      a keyword file of any bytes; the keyword table
//   Out     findings and texts; no keyword global changes
//   Thread  main, before any other thread starts
//   Failure a file that cannot be read is a finding
// Sample finding:  12 TQP_TRACE_LEVEl "is not a keyword; the nearest is TQP_TRACE_LEVEL"
#pragma once

#include <string>
#include <vector>

struct kw_finding {
  int line = 0;        // from 1; 0: the file as a whole
  std::string keyword; // printable, at most 60 bytes; empty for the file as a whole
  std::string what;    // what is wrong, and what is used instead
};

struct kw_findings {
  std::vector<kw_finding> list; // in the order of the lines, at most kw_most_findings
  size_t more = 0;              // findings beyond those
  size_t keywords = 0;          // lines that set a keyword
};

constexpr size_t kw_most_findings = 1000;

// Reads a file as the parser does and says what is wrong with it.
kw_findings kw_check_file(const char *path);

// "FILE:LINE: KEYWORD WHAT", without a newline.
std::string kw_finding_text(const char *path, const kw_finding &finding);

// Writes a line for each finding to standard error and to the trace; what goes beyond 50 lines is only counted.
void kw_warn_of_findings(const char *path);

enum kw_list_form { KW_LIST_TEXT, KW_LIST_MARKDOWN, KW_LIST_MAN };

// Every keyword with its unit, range, default and meaning, in the order of the alphabet.
std::string kw_list(kw_list_form form);
