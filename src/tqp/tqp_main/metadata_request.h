// Asks an agent for metadata that a record refers to and nobody has told yet: the call from the record readers up to the
// exchange with agents.
#pragma once

#include <cstdint>

struct tqp_instance_t;

// One round trip with the instance's agent, on the instance's thread. The caller looks into the map again afterwards.
// `kind` is an event number (5, 6, 7, 21, 26, 32 to 36, 41, 112), `timestamp` seconds, 0: now.
void tqp_request_metadata(tqp_instance_t *inst, int kind, int64_t id, int64_t timestamp);
