// What reading a test run costs at least: inflates the very members that tqshow --every inflates, and nothing else.
//   read_floor plan DIR TESTRUN   the members' places on standard output, a line each: file, offset, length
//   read_floor inflate PLAN       inflates them, one after the other, with one kept stream of zlib; prints bytes in and out
//   Thread  one
//   Failure exit status 1 and a line on standard error
#include "tqread_flowpath.h"
#include "tqread_text.h"

#include "wllb_util.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <zlib.h>

using namespace tqread;

// --- the plan -------------------------------------------------------------------------------------------------------

static void put_member(const test_run &run, std::string_view partition, int64_t app, int64_t offset, int64_t length) {
  if (length > 0)
    printf("%s/%.*s/tq/sqb/%" PRId64 " %" PRId64 " %" PRId64 "\n", run.base.c_str(), static_cast<int>(partition.size()),
           partition.data(), app, offset, length);
}

// Every member of one segment: its texts, which follow each other, then what was captured.
static void put_segment(const test_run &run, const segment_record &line, int64_t app) {
  int64_t offset = line.offset;
  for (const int64_t length : {line.callout_packed, line.blob_packed, line.detail_packed}) {
    put_member(run, line.partition, app, offset, length);
    offset += length;
  }
  for (std::string_view texts : {line.dynamic_texts, line.request_bodies, line.response_bodies})
    for (text_reference captured; take_reference(&texts, &captured);)
      put_member(run, captured.partition, app, captured.offset, captured.length);
}

static int write_plan(const char *dir, const char *testrun) {
  test_run run;
  if (const error failed = open_run(dir, atoi(testrun), &run)) {
    fprintf(stderr, "%s\n", error_text(failed).c_str());
    return 1;
  }
  blob_store store(run);
  segment_list list;
  each_place(run, "", "", [&](const flowpath_place &place) {
    row_file rows(run, row_path(place.partition, place.instance, "TQFlowPath.csv"), table_of(table_id::flowpath));
    while (rows.next()) {
      const flowpath_record &row = rows.record.as<flowpath_record>();
      text_reference at;
      if (rows.reason() || !read_reference(row.reference, &at) || read_segment_list(&store, row, &list))
        continue;
      put_member(run, at.partition, row.app, at.offset, at.length);
      for (const segment_record &line : list.segments)
        put_segment(run, line, row.app);
    }
    return true;
  });
  return 0;
}

// --- inflating ------------------------------------------------------------------------------------------------------

struct open_blob_file {
  std::string path;
  wllb_fd file;
};

static int inflate_plan(const char *plan) {
  line_file lines(plan);
  open_blob_file blobs;
  z_stream z = {};
  std::string packed;
  static char text[size_t{1} << 20U];
  int64_t in = 0, out = 0;
  if (inflateInit2(&z, 31) != Z_OK)
    return 1;
  for (std::string_view line; lines.next(&line);) {
    const std::string_view path = take_piece(&line, ' ');
    const int64_t offset = number_or(take_piece(&line, ' '), 0), length = number_or(line, 0);
    if (path != blobs.path) {
      blobs.path = path;
      blobs.file.reset(open(blobs.path.c_str(), O_RDONLY | O_CLOEXEC));
    }
    packed.resize(static_cast<size_t>(length));
    if (wllb_read_at(blobs.file.fd, packed.data(), length, offset) != length || inflateReset(&z) != Z_OK)
      return 1;
    z.next_in = reinterpret_cast<Bytef *>(packed.data());
    z.avail_in = static_cast<uInt>(length);
    int result = Z_OK;
    while (result == Z_OK) {
      z.next_out = reinterpret_cast<Bytef *>(text);
      z.avail_out = sizeof text;
      result = inflate(&z, Z_NO_FLUSH);
      out += static_cast<int64_t>(sizeof text - z.avail_out);
    }
    if (result != Z_STREAM_END) {
      fprintf(stderr, "a member does not inflate: a late segment's?\n");
      return 1;
    }
    in += length;
  }
  inflateEnd(&z);
  printf("%" PRId64 " bytes in, %" PRId64 " bytes out\n", in, out);
  return 0;
}

int main(int argc, char **argv) {
  if (argc == 4 && strcmp(argv[1], "plan") == 0)
    return write_plan(argv[2], argv[3]);
  if (argc == 3 && strcmp(argv[1], "inflate") == 0)
    return inflate_plan(argv[2]);
  fprintf(stderr, "read_floor plan DIR TESTRUN | read_floor inflate PLAN\n");
  return 1;
}
