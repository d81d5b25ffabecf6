// Asks an agent for metadata that a record refers to and nobody has told yet: the call from the record readers up to the
// exchange with agents.
#pragma once

#include <cstdint>

struct tqp_instance_t;

// One round trip with the instance's agent, on the instance's thread, unless the id is known or requests are not possible
// now. The caller looks into the map again afterwards.
// `kind` is an event number (5, 6, 7, 21, 26, 32 to 36, 41, 112), `timestamp` seconds, 0: now.
void get_meta_data_for_events_from_bci(tqp_instance_t *inst, int kind, int64_t id, int64_t timestamp);

// The same for all that the agent has of a kind.
void tqp_request_all_metadata(tqp_instance_t *inst, int kind);

// Lines of replies that may free or move what the record holds that has asked: they wait until it is done, and the
// dispatcher then runs them. The mark says that this thread has some.
extern constinit thread_local bool tqp_reply_lines_kept;
void tqp_run_kept_reply_lines(tqp_instance_t *inst);

// Limits of an exchange, ms: of one wait, and of all of a new one. Fixed; tests shorten them.
extern int tq_metadata_epoll_timeout;
extern int tq_metadata_new_form_timeout;
