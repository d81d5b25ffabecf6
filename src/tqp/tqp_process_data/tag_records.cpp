// Records of labels and of the topology, handed to their group.
//   In      91,backend,source tier,destination tier    110,{...}    111,{...}    112,5,{...}
//   Out     what tqp_tags makes of them
//   Thread  the instance's
//   Failure told by tqp_tags
#include "event_table.h"
#include "tqp_tags.h"

void tq_run_global_text(tq_event &ev) {
  tqp_set_global_tags_and_attributes(ev.inst, &ev.f.pos, ev.f.end, 1,
                                     ev.id == TQ_EV_GLOBAL_ATTRIBUTES ? TAG_KIND_ATTRIBUTES : TAG_KIND_TAGS);
}

void tq_run_tags(tq_event &ev) {
  tqp_process_tags(ev.inst, &ev.f.pos, ev.f.end);
}

void tq_run_topology(tq_event &ev) {
  tq_process_auto_topology_discovery_record(&ev.f.pos, ev.f.end);
}
