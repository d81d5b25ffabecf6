// Announcements of captured bodies: of a request (14), of a response (15). The body stands on the bytes that follow.
//   In      14,81:81:0:81,10\n and ten bytes and a newline
//   Out     httpbody_remaining_bytes and the path of the body's file, for the line cutter
//   Thread  the instance's
//   Failure a record without a size field is told and counted; a size out of range is told, and no body follows
// A name that may not stand in a path, or the keyword against it, leaves the path empty: the bytes are counted all the same.

#include "event_table.h"
#include "record_errors.h"

#include <cstring>

constexpr int64_t most_body_bytes = int64_t{1} << 30;
constexpr size_t most_name_bytes = 64;

static bool may_be_file_name(const char *text) {
  static constexpr char allowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:._-";
  const size_t len = strlen(text);
  return len <= most_name_bytes && strspn(text, allowed) == len;
}

static void set_body_path(tqp_instance_t *inst, int event_id, const char *flowpath) {
  inst->httpbody_file_path_name[0] = 0;
  if (disable_dumping_captured_http_body)
    return;
  if (!may_be_file_name(flowpath)) {
    wllb_trace(1, "Error", "A captured body has a flowpath that cannot name a file, so it is not written");
    return;
  }
  const std::string path =
      wllb_format("%s/logs/TR%d/%s/tq/logs/http_%s_body_%s_%s.dat", wl_wdir, testidx, inst->partition_name,
                  event_id == TQ_EV_REQ_BODY ? "req" : "resp", inst->tier_server_app_name, flowpath);
  if (path.size() < sizeof inst->httpbody_file_path_name)
    wllb_copy_text(inst->httpbody_file_path_name, sizeof inst->httpbody_file_path_name, path);
}

void tq_run_captured_body(tq_event &ev) {
  const char *flowpath = ev.f.next();
  if (ev.f.ended)
    return tqp_incomplete_record(ev.inst);
  const char *size_text = ev.f.next();
  if (!ev.f.ended)
    tqp_surplus_fields(ev.inst); // all the same the body follows
  if (!*size_text)
    return;
  const int64_t size = strtoll(size_text, nullptr, 10);
  if (size < 0 || size > most_body_bytes) {
    wllb_trace(1, "Error", "A captured body of %lld bytes is refused", static_cast<long long>(size));
    return;
  }
  set_body_path(ev.inst, ev.id, flowpath);
  ev.inst->httpbody_remaining_bytes = static_cast<int>(size) + 1; // with its newline
}
