// Puts a flowpath's strands together and lets them interleave as threads do.
//   In      the stream, the call
//   Out     sample_plan
//   Thread  one
//   Failure none
#include "sample_flowpath.h"

std::string sample_child_number(std::string_view begin_seq, int n) {
  std::string number(begin_seq.substr(0, begin_seq.rfind('.') + 1)); // without a dot: npos + 1 is 0
  sample_put(number, n, ".1");
  return number;
}

void sample_end_record(sample_strand &strand) {
  strand.ends.push_back(strand.bytes.size());
}

static bool waits_for_a_child(const std::vector<sample_strand> &strands, const std::vector<size_t> &gone,
                              size_t parent) {
  for (size_t s = 0; s < strands.size(); ++s)
    if (strands[s].parent == static_cast<int>(parent) && !strands[s].announced && gone[s] == 0)
      return true;
  return false;
}

// May strand `s` send its next record, when `gone` tells how many records each strand has sent?
static bool may_go(const std::vector<sample_strand> &strands, const std::vector<size_t> &gone, size_t s) {
  const sample_strand &strand = strands[s];
  if (gone[s] == strand.ends.size())
    return false;
  if (strand.parent >= 0 && gone[static_cast<size_t>(strand.parent)] < strand.after)
    return false;
  return gone[s] + 1 < strand.ends.size() || !waits_for_a_child(strands, gone, s);
}

static sample_plan merge_strands(const std::vector<sample_strand> &strands, sample_random &random) {
  sample_plan plan = {};
  std::vector<size_t> gone(strands.size());
  size_t left = 0;
  for (const sample_strand &strand : strands)
    left += strand.ends.size();
  while (left > 0) {
    size_t s = random.below(static_cast<uint32_t>(strands.size()));
    while (!may_go(strands, gone, s))
      s = (s + 1) % strands.size();
    const size_t begin = gone[s] == 0 ? 0 : strands[s].ends[gone[s] - 1];
    plan.bytes.append(strands[s].bytes, begin, strands[s].ends[gone[s]] - begin);
    plan.ends.push_back(plan.bytes.size());
    ++gone[s];
    --left;
  }
  return plan;
}

sample_plan sample_make_flowpath(sample_stream_t &stream, const sample_call &call) {
  sample_random &random = stream.random;
  sample_flowpath flowpath = {};
  flowpath.stream = &stream;
  flowpath.call = call;
  flowpath.session = 100000 + random.below(899999);
  flowpath.side_segments_left = random.chance(30) ? static_cast<int>(random.between(1, 3)) : 0;
  flowpath.strands.push_back({{}, {}, -1, 0, true});

  sample_segment first = {};
  first.flowpath = &flowpath;
  first.fpi = call.fpi;
  first.begin_seq = call.begin_seq;
  sample_put(first.thread_name, "http-", random.between(1, 64));
  first.start_ms = call.start_ms;
  first.header_event = 2;
  first.exit_form = stream.inst->exit_form;
  first.methods = stream.load->flowpath_methods / 2 + random.below(stream.load->flowpath_methods + 1);
  first.url_id = sample_any_id(stream, SAMPLE_URL);
  sample_write_segment(first);
  if (flowpath.strands.size() > 1)
    return merge_strands(flowpath.strands, random);
  return {std::move(flowpath.strands[0].bytes), std::move(flowpath.strands[0].ends), 0};
}
