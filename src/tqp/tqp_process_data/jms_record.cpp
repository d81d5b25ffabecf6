// JMS records: one message with its header, properties and text.
//   In      16,81,1000250,Header={...}Properties={...}Text={...}   (the payload may hold commas)
//   Out     rows of the JMS writer
//   Thread  the instance's
//   Failure a record without a payload is told and counted

#include "event_table.h"
#include "flowpath_files.h"
#include "record_errors.h"

#include <cstring>

// The rest of the record. A payload that begins with a comma finds the cursor on the byte cut before.
static std::string_view payload_of(const tqp_fields &f) {
  const char *const begin = f.pos < f.end && *f.pos == 0 ? f.pos + 1 : f.pos;
  return {begin, strnlen(begin, static_cast<size_t>(f.end - begin))};
}

void tq_run_jms(tq_event &ev) {
  const char *flowpath_id = ev.f.next();
  if (ev.f.ended)
    return tqp_incomplete_record(ev.inst);
  const char *timestamp = ev.f.next();
  if (ev.f.ended)
    return tqp_incomplete_record(ev.inst);
  const std::string_view payload = payload_of(ev.f);
  if (payload.find(',') != payload.npos)
    tqp_surplus_fields(ev.inst); // all the same the payload is used whole
  csv_dump_jms_data(ev.inst, strtoll(flowpath_id, nullptr, 10), strtoll(timestamp, nullptr, 10), payload.data(),
                    payload.size(), 0);
  wllb_trace(3, "Info", "Received Event %d, fpi= %s, size = %s", ev.id, flowpath_id, timestamp);
}
