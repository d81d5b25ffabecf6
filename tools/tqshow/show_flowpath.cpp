// Lists flowpaths, and prints one with its segments and exceptions.
//   In      TQFlowPath.csv, the sequence blob file its rows point into, names
//   Out     lines on standard output
//   Thread  one
//   Failure what cannot be read is told in its place, the rest goes on; the exit status is 1 then
#include "show_flowpath.h"

#include "show_detail.h"
#include "show_exceptions.h"
#include "show_tree.h"

#include <algorithm>

static int print_len(std::string_view text) {
  return static_cast<int>(text.size());
}

// The list of a row's segments. Null, or what is wrong.
static const char *read_list(const show_run &run, const show_row &row, std::string *list) {
  show_reference reference;
  if (!show_read_reference(row[ROW_REFERENCE], &reference))
    return "the reference to its segments cannot be read";
  show_blob_file file;
  if (!show_open_blob_file(run, reference.partition, row.number(ROW_APP), &file))
    return "the sequence blob file of its segments is not there";
  return show_read_member(file, reference.offset, reference.length, list);
}

// --- the list of flowpaths ----------------------------------------------------------------------------------------

int show_instance_width(const show_run &run, const show_choice &choice) {
  size_t width = std::string_view("instance").size();
  show_each_instance(run, choice, [&](const std::string &, const std::string &instance) {
    width = std::max(width, instance.size());
    return true;
  });
  return static_cast<int>(std::min<size_t>(width, 40));
}

static std::string segment_count(const show_run &run, const show_row &row) {
  std::string list;
  int64_t count = 0;
  if (read_list(run, row, &list))
    return "?";
  std::string_view rest = list;
  return show_begin_list(&rest, &count) ? std::to_string(count) : "?";
}

static void print_flowpath_line(const show_run &run, const show_names &names, const std::string &partition,
                                const std::string &instance, int width, const show_row &row) {
  constexpr size_t url_width = 40;
  printf("%-14s  %-*s  %20.*s  %-19s  %9.*s  %6.*s  %5s  %8.*s  %8.*s  %-40s  %s\n", partition.c_str(), width,
         show_printable(instance, 40).c_str(), print_len(row[ROW_FPI]), row[ROW_FPI].data(),
         show_time_text(run, row.number(ROW_BEGIN)).c_str(), print_len(row[ROW_DURATION]), row[ROW_DURATION].data(),
         print_len(row[ROW_STATUS]), row[ROW_STATUS].data(), segment_count(run, row).c_str(),
         print_len(row[ROW_METHODS]), row[ROW_METHODS].data(), print_len(row[ROW_CALLOUTS]), row[ROW_CALLOUTS].data(),
         show_name(names, KIND_URL, row.number(ROW_URL), url_width).c_str(),
         show_printable(row[ROW_CORRELATION], 255).c_str());
}

void show_tell_bad_row(const std::string &path, const show_lines &lines, const char *words) {
  printf("%s line %lld: %s\n", path.c_str(), static_cast<long long>(lines.number), words);
}

int show_list(const show_run &run, const show_choice &choice) {
  show_names names;
  show_load_names(run, 1U << KIND_URL, true, &names, nullptr);
  const int width = show_instance_width(run, choice);
  printf("%-14s  %-*s  %20s  %-19s  %9s  %6s  %5s  %8s  %8s  %-40s  %s\n", "partition", width, "instance", "flowpath",
         "start (UTC)", "ms", "status", "parts", "methods", "callouts", "url", "correlation id");
  int result = 0;
  show_each_instance(run, choice, [&](const std::string &partition, const std::string &instance) {
    const std::string path = show_data_path(run, partition, instance, "TQFlowPath.csv");
    show_lines lines(path);
    for (std::string_view line; lines.next(&line);) {
      show_row row;
      if (const char *words = show_split_row(line, &row)) {
        show_tell_bad_row(path, lines, words);
        result = 1;
      } else {
        print_flowpath_line(run, names, partition, instance, width, row);
      }
    }
    return true;
  });
  return result;
}

// --- one flowpath -------------------------------------------------------------------------------------------------

// A part of the run with which one row is printed.
struct printed_row {
  const show_run &run;
  const show_names &names;
  const std::string &partition, &instance;
  const show_row &row;
};

static void print_head(const printed_row &p) {
  const show_row &row = p.row;
  printf("flowpath     %.*s\n", print_len(row[ROW_FPI]), row[ROW_FPI].data());
  printf("instance     %s, partition %s\n", show_printable(p.instance, 255).c_str(), p.partition.c_str());
  printf("url          %s\n", show_name(p.names, KIND_URL, row.number(ROW_URL), 1000).c_str());
  printf("start (UTC)  %s, %.*s ms, status %.*s\n", show_time_text(p.run, row.number(ROW_BEGIN)).c_str(),
         print_len(row[ROW_DURATION]), row[ROW_DURATION].data(), print_len(row[ROW_STATUS]), row[ROW_STATUS].data());
  printf("sums         %.*s methods, %.*s callouts, %.*s errors\n", print_len(row[ROW_METHODS]),
         row[ROW_METHODS].data(), print_len(row[ROW_CALLOUTS]), row[ROW_CALLOUTS].data(), print_len(row[ROW_ERRORS]),
         row[ROW_ERRORS].data());
  printf("correlation  %s\n", show_printable(row[ROW_CORRELATION], 255).c_str());
  if (const int64_t tags = row.number(ROW_TAGS); tags != 0)
    printf("tags         %s\n", show_name(p.names, KIND_TAG, tags, 1000).c_str());
  printf("list         %s\n", show_printable(row[ROW_REFERENCE], 255).c_str());
}

// The main segment of a flowpath that was given up carries its begin in thousandths: no time at all then.
static std::string segment_begin(const printed_row &p, const show_segment_line &line) {
  constexpr int64_t day = 86400;
  const int64_t begin = line.number(LINE_BEGIN), of_row = p.row.number(ROW_BEGIN);
  return begin >= 0 && of_row >= 0 && of_row - begin > day ? "-" : show_time_text(p.run, begin);
}

static void print_segment_head(const printed_row &p, const show_segment_line &line) {
  printf("\nsegment      %s, flowpath %.*s of %.*s\n", show_printable(line[LINE_SEQ_NUM], 255).c_str(),
         print_len(line[LINE_FPI]), line[LINE_FPI].data(), print_len(line[LINE_PARENT]), line[LINE_PARENT].data());
  printf("where        tier %.*s, server %.*s, app %.*s, thread %s, segment tier %.*s, partition %s\n",
         print_len(p.row[2]), p.row[2].data(), print_len(p.row[3]), p.row[3].data(), print_len(p.row[ROW_APP]),
         p.row[ROW_APP].data(), show_printable(line[LINE_THREAD], 255).c_str(), print_len(line[LINE_TIER]),
         line[LINE_TIER].data(), show_printable(line[LINE_PARTITION], 20).c_str());
  printf("start (UTC)  %s, %.*s ms, status %.*s, %.*s methods\n", segment_begin(p, line).c_str(),
         print_len(line[LINE_RESPONSE_TIME]), line[LINE_RESPONSE_TIME].data(), print_len(line[LINE_STATUS]),
         line[LINE_STATUS].data(), print_len(line[LINE_METHODS]), line[LINE_METHODS].data());
}

// False when its texts cannot be read.
static bool print_segment(const printed_row &p, const show_segment_line &line) {
  print_segment_head(p, line);
  show_blob_file file;
  show_segment_texts texts;
  std::string words = "the sequence blob file is not there";
  if (show_open_blob_file(p.run, line[LINE_PARTITION], p.row.number(ROW_APP), &file))
    words = show_read_segment(file, line, &texts);
  if (!words.empty()) {
    printf("its texts cannot be read: %s\n", words.c_str());
    return false;
  }
  const bool good = show_print_detail(p.run, p.names, p.row.number(ROW_APP), line, texts.detail);
  if (show_has_no_blob(line))
    printf("it left no call tree\n");
  else
    show_print_tree(p.names, texts.blob);
  return good;
}

static bool print_flowpath(const printed_row &p) {
  print_head(p);
  std::string list;
  int64_t count = 0;
  const char *words = read_list(p.run, p.row, &list);
  std::string_view rest = list;
  if (!words && !show_begin_list(&rest, &count))
    words = "the list of its segments has no count";
  bool good = true;
  show_segment_line line;
  while (!words && show_next_line(&rest, &line))
    good = print_segment(p, line) && good;
  if (!words && !rest.empty())
    words = "the list of its segments cannot be read to its end";
  if (words)
    printf("%s\n", words);
  return good && !words;
}

int show_one(const show_run &run, const show_choice &choice) {
  show_names names;
  show_load_names(run, show_tree_kinds | show_detail_kinds | 1U << KIND_URL | 1U << KIND_TAG, true, &names, nullptr);
  int64_t flowpath = choice.flowpath;
  int found = 0;
  bool good = true;
  show_each_instance(run, choice, [&](const std::string &partition, const std::string &instance) {
    show_lines lines(show_data_path(run, partition, instance, "TQFlowPath.csv"));
    for (std::string_view line; lines.next(&line) && !(choice.first && found > 0);) {
      show_row row;
      if (show_split_row(line, &row) || (!choice.first && !choice.every && row.number(ROW_FPI) != choice.flowpath))
        continue;
      if (found++ > 0)
        printf("\n");
      flowpath = row.number(ROW_FPI);
      good = print_flowpath({run, names, partition, instance, row}) && good;
    }
    return !(choice.first && found > 0);
  });
  if (found > 0 && !choice.every)
    show_exceptions_of(run, choice, flowpath);
  else if (found == 0)
    fputs("There is no such flowpath\n", stderr);
  return found > 0 && good ? 0 : 1;
}
