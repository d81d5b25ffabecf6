// The file that rows point into: blobs, callouts, request details and segment lists of one instance in one partition.
//   In      texts of finished segments and lists; the instance's partition and appID
//   Out     "%s/webapps/logs/TR%d/%s/tq/sqb/%d": no header, no framing, only what the offsets in the rows make of it
//   Thread  the instance's; the directory is made under sqb_dir_lock
//   Failure a file that cannot be opened is traced and tried again with the next write; what was to go there is lost
// Version B, a segment:  gzip(callouts) gzip(blob) gzip(request detail)      A, C:  callouts \n blob \n request detail \n
// The write-behind buffer is the only one: nobody uses those of the streams. sqbfile_offset counts what is in it as written.

#include "flowpath_files.h"
#include "tqp_csv_files.h"

#include "wllb_compression.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

// --- the files --------------------------------------------------------------------------------------------------

static int64_t size_of(FILE *stream) {
  struct stat file = {};
  return fstat(fileno(stream), &file) == 0 ? file.st_size : 0;
}

// Makes the instance's file in a partition. A null mode is that of the test run: go on with the file, or empty it.
static FILE *open_in_partition(const tqp_instance_t *inst, const char *partition, const char *mode) {
  const std::string in_place = wllb_format("%s/webapps/logs/TR%d/%s/tq/sqb", wl_wdir, testidx, partition);
  tqp_make_binary_dir(partition, "sqb", in_place, sqb_dir_lock);
  const std::string path = wllb_format("%s/%d", in_place.c_str(), inst->appID); // where readers look, link or not
  FILE *stream = mode ? tqp_make_data_file_as(path.c_str(), mode, true) : tqp_make_data_file(path.c_str(), true);
  const int error = errno;
  if (!stream)
    wllb_trace(1, "Error", "Error in opening file '%s' for writing in append mode, err = '%s', errno = %d",
               path.c_str(), wllb_strerror(error).c_str(), error);
  return stream;
}

void open_sqb_file(tqp_instance_t *inst) {
  tqp_close_stream(&inst->sqb_fp);
  inst->sqb_fp = open_in_partition(inst, inst->partition_name, nullptr);
  if (inst->sqb_fp)
    inst->sqbfile_offset = size_of(inst->sqb_fp) + static_cast<int64_t>(inst->sqb_file_buf.len);
  if (inst->prev_sqb_fp || !*inst->prev_partition_name)
    return;
  inst->prev_sqb_fp = open_in_partition(inst, inst->prev_partition_name, "a");
  if (inst->prev_sqb_fp)
    inst->prev_sqbfile_offset = static_cast<int32_t>(size_of(inst->prev_sqb_fp));
}

void tqp_rotate_sqb_file(tqp_instance_t *inst) {
  if (!tqp_seq_blob_in_file_flag)
    return;
  tqp_close_stream(&inst->prev_sqb_fp);
  inst->prev_sqb_fp = inst->sqb_fp;
  inst->sqb_fp = nullptr;
  inst->prev_sqbfile_offset = static_cast<int32_t>(inst->sqbfile_offset);
  inst->sqbfile_offset = 0;
}

// --- writing ----------------------------------------------------------------------------------------------------

// Bytes that the system does not take leave a hole: lines that point there find nothing, instead of the bytes that come
// next. Where there can be no hole they are not counted, so that what comes later is found all the same.
static void write_out(tqp_instance_t *inst, const char *data, size_t length) {
  const size_t written = wllb_write_some(fileno(inst->sqb_fp), {data, length});
  if (written == length)
    return;
  const int error = errno;
  const auto missing = static_cast<int64_t>(length - written);
  if (ftruncate(fileno(inst->sqb_fp), size_of(inst->sqb_fp) + missing) != 0)
    inst->sqbfile_offset -= missing;
  wllb_trace(1, "Error", "Could not write %lld bytes to the sequence blob file. Error = %s",
             static_cast<long long>(missing), wllb_strerror(error).c_str());
}

// False when the buffer has no room left behind the data.
static bool put_in_buffer(wllb_text &buffer, const char *data, size_t length) {
  if (buffer.len + length >= buffer.size)
    return false;
  if (length > 0)
    memcpy(buffer.data + buffer.len, data, length);
  buffer.len += length;
  buffer.data[buffer.len] = 0;
  return true;
}

// Rows follow only now: none may reach its file ahead of the bytes it points to.
static void flush_with(tqp_instance_t *inst, const char *data, size_t length) {
  write_out(inst, inst->sqb_file_buf.data, inst->sqb_file_buf.len);
  write_out(inst, data, length);
  wllb_text_clear(inst->sqb_file_buf);
  csv_dump_flowpath(inst, 0, nullptr);
}

// The previous partition's bytes wait for nobody.
static void write_to_previous(const tqp_instance_t *inst, const char *data, size_t length) {
  if (inst->prev_sqb_fp)
    wllb_write_all(fileno(inst->prev_sqb_fp), {data, length});
}

void sqb_fwrite(tqp_instance_t *inst, const char *data, size_t length, bool force_flush, bool to_prev) {
  wllb_text &buffer = inst->sqb_file_buf;
  if (length == 0 && buffer.len == 0)
    return;
  if (to_prev)
    return write_to_previous(inst, data, length);
  if (!inst->sqb_fp)
    open_sqb_file(inst); // first of all: the offset of these bytes is known only then
  if (!buffer.data) {
    buffer.size = static_cast<size_t>(max_buffered_sqb_bufsize);
    buffer.data = static_cast<char *>(wllb_new_block(buffer.size, "sqb file buffer")); // pages come as they are touched
  }
  if ((force_flush || !put_in_buffer(buffer, data, length)) && inst->sqb_fp)
    flush_with(inst, data, length);
}

// --- segments ---------------------------------------------------------------------------------------------------

size_t tqp_compress_for_sqb(tqp_instance_t *inst, std::string_view text) {
  wllb_text &out = inst->flowpath_sqb_buffer;
  if (!out.data)
    wllb_text_room(out, static_cast<size_t>(tqp_seq_blob_compression_buffer_init_size), "Flowpath SQB Buffer");
  return wllb_comp_do(text, 1, &out) == 0 ? out.len : 0;
}

// The previous file's offset is narrow and wraps.
static void write_counted(tqp_instance_t *inst, const char *data, size_t length, bool to_prev) {
  sqb_fwrite(inst, data, length, false, to_prev);
  if (to_prev)
    inst->prev_sqbfile_offset = static_cast<int32_t>(inst->prev_sqbfile_offset + static_cast<int64_t>(length));
  else
    inst->sqbfile_offset += static_cast<int64_t>(length);
}

// The compressed length; 0 for a text that goes as it is.
static int64_t save_text(tqp_instance_t *inst, const wllb_text &text, bool to_prev) {
  if (tqp_seq_blob_in_file_version != 'B') {
    write_counted(inst, text.data, text.len, to_prev);
    write_counted(inst, "\n", 1, to_prev);
    return 0;
  }
  const size_t length = tqp_compress_for_sqb(inst, wllb_text_view(text));
  if (length > 0)
    write_counted(inst, inst->flowpath_sqb_buffer.data, length, to_prev);
  return static_cast<int64_t>(length);
}

sqb_lengths save_sqb_to_file_and_update_offset(tqp_instance_t *inst, const segment_fp_t *segment, bool to_prev) {
  sqb_lengths lengths = {};
  if (!segment->seq_blob.data) {
    wllb_trace(1, "Error", "seq_blob string is null, returning.");
    return lengths;
  }
  if (segment->callout_buf.len > 0)
    lengths.callout_comp = save_text(inst, segment->callout_buf, to_prev);
  lengths.sqb_comp = save_text(inst, segment->seq_blob, to_prev);
  if (segment->req_detail_buf.len > 0)
    lengths.req_detail_comp = save_text(inst, segment->req_detail_buf, to_prev);
  return lengths;
}
