// Labels and backends, announced when an agent starts.
//   In      the instance
//   Out     lines
//   Thread  one
//   Failure none
// Samples:  110,{"zone":"eu-1","image":"cart-4.1"}    112,5,{"release":"2026.1","flags":{"canary":true}}
//           91,com.acme.backend.OrdersDb,Shop,OrdersDb
#include "sample_tags.h"

#include <iterator>

// Texts of tag sets, without the tier's number that ends their first member.
static constexpr std::string_view tag_sets[] = {
    R"(","flags":{"canary":true,"langs":["de","en"]}})",
    R"(","owner":"it's the night shift"})",
    R"("})",
};

constexpr int32_t first_tag_set = 4;

void sample_put_labels(std::string &out, const sample_instance_t &inst) {
  sample_put(out, "110,{\"zone\":\"eu-", 1 + inst.server_id % 3, "\",\"image\":\"", inst.app, "-4.", inst.tier_id,
             "\"}\n");
  sample_put(out, "111,{\"team\":\"", inst.app, "\",\"stage\":\"load\"}\n");
  int32_t id = first_tag_set;
  for (const std::string_view rest : tag_sets)
    sample_put(out, "112,", id++, ",{\"release\":\"2026.", inst.tier_id, rest, '\n');
}

void sample_put_topology(std::string &out, const sample_instance_t &inst, std::string_view next_tier) {
  sample_put(out, "91,com.acme.backend.OrdersDb,", inst.tier, ",OrdersDb\n");
  if (!next_tier.empty())
    sample_put(out, "91,com.acme.backend.NextTier,", inst.tier, ',', next_tier, '\n');
}

int32_t sample_tag_set(int64_t fpi) {
  return first_tag_set + static_cast<int32_t>(static_cast<uint64_t>(fpi) % std::size(tag_sets));
}
