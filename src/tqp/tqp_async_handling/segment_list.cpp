// The list of a flowpath's segments: one gzip member in the sequence blob file, named by its row's reference.
//   In      the lines of the flowpath's finished segments
//   Out     the member, and the reference; the flowpath expects nothing any more
//   Thread  the instance's
//   Failure with a file that cannot be opened the bytes are lost and the reference stands
// Sample list:  2       |1.1 line|1.2 line        Sample reference:  C:1:20261122213000:4096:171

#include "flowpath_files.h"
#include "tqp_async_handling.h"

#include <charconv>

static constexpr const char *list_label = "temp buffer";

// The count, blanks up to eight places, then each line behind a bar.
static std::string_view put_list(wllb_text &list, const record_array<pending_segment_fp_t *> &entries) {
  constexpr std::string_view count_places = "        ";
  size_t size = count_places.size();
  for (int32_t i = 0; i < entries.used; ++i)
    size += entries.data[i]->segment_csv_str.len + 1;
  wllb_text_clear(list);
  wllb_putter put(list, size, list_label);
  put.put(count_places);
  int32_t count = 0;
  for (int32_t i = 0; i < entries.used; ++i) {
    if (entries.data[i]->segment_csv_str.len == 0)
      continue;
    put.put('|').put(wllb_text_view(entries.data[i]->segment_csv_str));
    ++count;
  }
  put.done(list);
  std::to_chars(list.data, list.data + list.len, count);
  return wllb_text_view(list);
}

void dump_segments_info_in_sqb(tqp_instance_t *inst, concurrent_flowpath_t *fp, std::string *reference_out) {
  constexpr size_t kept_size = 65536; // bytes; a larger list's memory goes with it
  if (!inst->sqb_fp)
    open_sqb_file(inst);
  const int64_t start = inst->sqbfile_offset;
  const size_t length = tqp_compress_for_sqb(inst, put_list(inst->segment_list_buf, fp->pending_seg_arr));
  if (inst->segment_list_buf.size > kept_size)
    wllb_text_free(inst->segment_list_buf, list_label);
  if (length > 0) {
    sqb_fwrite(inst, inst->flowpath_sqb_buffer.data, length, false, false);
    inst->sqbfile_offset += static_cast<int64_t>(length);
  }
  *reference_out =
      wllb_format("C:1:%s:%lld:%d", inst->partition_name, static_cast<long long>(start), static_cast<int>(length));
  for (int i = fp->pending_seg_arr.used - 1; i >= 0; --i)
    remove_from_pending_segment_array(inst, fp, i);
}
