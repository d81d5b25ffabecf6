// Labels of a generated agent, and the backends that its tier has found.
#pragma once

#include "sample_records.h"

// 110, 111: texts of the whole instance. 112: tag sets with the agent's own local ids, from 4 on.
void sample_put_labels(std::string &out, const sample_instance_t &inst);

// 91: which tier answers a backend. An empty next tier has none.
void sample_put_topology(std::string &out, const sample_instance_t &inst, std::string_view next_tier);

// One of the announced tag sets.
int32_t sample_tag_set(int64_t fpi);
