// The tables of flowpaths in flight against plain models of them: slots, recent flowpaths, segments, expected segments,
// and who frees what.

#include "output_files_fixture.h"

#include "tqp_async_handling.h"
#include "tqp_method_timing.h"
#include "tqp_sql_timing.h"

#include <algorithm>
#include <random>

namespace {

class flowpath_tables : public output_files {
protected:
  std::mt19937_64 random{20261122};
  concurrent_flowpath_t flowpath = {}; // a slot of nobody's table
  concurrent_flowpath_t *fp = &flowpath;

  flowpath_tables() {
    wllb_mp_init(&inst->tqp_flowpath_seg_pool, sizeof(segment_fp_t), 8, 8, 0);
    wllb_mp_init(&inst->tqp_flowpath_pending_seg_pool, sizeof(pending_segment_fp_t), 8, 8, 0);
  }

  ~flowpath_tables() override {
    record_array_free(fp->seg_arr, "Segment Array");
    record_array_free(fp->pending_seg_arr, "Pending Segment Array");
    tqp_free_flowpath_store(inst);
    wllb_mp_destroy(&inst->tqp_flowpath_seg_pool);
    wllb_mp_destroy(&inst->tqp_flowpath_pending_seg_pool);
    wllb_zarray_free(inst->recent_fpi_array, ring_growth);
    for (wllb_text *text : {&inst->sqb_file_buf, &inst->flowpath_sqb_buffer, &inst->segment_list_buf})
      wllb_text_free(*text, "instance buffer");
  }

  static constexpr wllb_growth ring_growth = {.first = 0, .step = 1, .label = "recent_fpi_array"};

  int below(int limit) { return static_cast<int>(random() % static_cast<uint64_t>(limit)); }

  concurrent_flowpath_t *slot(int i) const { return &inst->con_fp_buf.data[i]; }

  std::vector<int64_t> segment_order() const {
    std::vector<int64_t> order;
    for (int i = 0; i < fp->seg_arr.used; ++i)
      order.push_back(fp->seg_arr.data[i]->self_fpi);
    return order;
  }

  std::vector<std::string> pending_order() const {
    std::vector<std::string> order;
    for (int i = 0; i < fp->pending_seg_arr.used; ++i)
      order.emplace_back(wllb_text_str(fp->pending_seg_arr.data[i]->begin_seq_number));
    return order;
  }
};

// --- slots ----------------------------------------------------------------------------------------------------------

// The table as a plain array that is walked from its beginning.
struct walked_slots {
  std::vector<int64_t> main_fpi;
  std::vector<int> tail_index; // method_stack_tail_index
  int last = -1;

  int find(int64_t key) const {
    for (int i = 0; i <= last; ++i)
      if (main_fpi[static_cast<size_t>(i)] == key)
        return i;
    return -1;
  }

  int free_slot(int first_size, int delta) {
    const int free = find(0);
    if (free >= 0)
      return free;
    if (last + 1 >= static_cast<int>(main_fpi.size())) {
      main_fpi.resize(main_fpi.empty() ? static_cast<size_t>(first_size)
                                       : main_fpi.size() + static_cast<size_t>(delta));
      tail_index.resize(main_fpi.size(), -1);
    }
    return ++last;
  }

  void free(int i) {
    main_fpi[static_cast<size_t>(i)] = 0;
    tail_index[static_cast<size_t>(i)] = 0;
    if (i == last)
      while (last >= 0 && main_fpi[static_cast<size_t>(last)] == 0)
        --last;
  }
};

TEST_F(flowpath_tables, slots_are_those_a_walk_would_find) {
  walked_slots model;
  EXPECT_EQ(-1, tqp_find_flowpath(inst, 5));
  for (int step = 0; step < 60000; ++step) {
    const int wanted = step / 6000 % 2 ? 30 : 400; // the table fills and drains in turns
    // Few numbers, so that the same comes again, also while it is in use; they differ in high or in low bits only.
    const int64_t number = 1 + below(500);
    const int64_t key = step % 2 ? number : number << 50;
    ASSERT_EQ(model.find(key), tqp_find_flowpath(inst, key)) << step;
    if (below(wanted) >= model.last / 2) {
      const int at = model.free_slot(init_concurrent_flowpaths, delta_concurrent_flowpaths);
      ASSERT_EQ(at, get_concurrent_flowpath_free_idx(inst));
      ASSERT_EQ(at, get_concurrent_flowpath_free_idx(inst)) << "nobody has taken it yet";
      ASSERT_EQ(model.tail_index[static_cast<size_t>(at)], slot(at)->method_stack_tail_index);
      tqp_occupy_flowpath(inst, at, key);
      model.main_fpi[static_cast<size_t>(at)] = key;
    } else {
      const int at = below(model.last + 1);
      tqp_free_flowpath_slot(inst, at);
      model.free(at);
    }
    if (model.last >= 0 && below(10) == 0) { // a flowpath learns its true number
      const int at = model.last;
      tqp_occupy_flowpath(inst, at, key + 1);
      model.main_fpi[static_cast<size_t>(at)] = key + 1;
    }
    ASSERT_EQ(model.last, inst->last_occupied_fp_idx) << step;
    ASSERT_EQ(static_cast<int>(model.main_fpi.size()), inst->cur_max_concurrent_flowpaths);
    ASSERT_EQ(model.find(key), tqp_find_flowpath(inst, key)) << step;
  }
}

// --- flowpaths written lately -----------------------------------------------------------------------------------

struct walked_ring {
  std::vector<int64_t> entries;
  int at = 0;

  int ask(int64_t fpi) {
    const int size = static_cast<int>(entries.size());
    for (int i = at == 0 ? 0 : at - 1; i != at; i = i == 0 ? size - 1 : i - 1) {
      const int64_t entry = entries[static_cast<size_t>(i)];
      if (entry == 0)
        break;
      if (entry == fpi)
        return 1;
    }
    entries[static_cast<size_t>(at)] = fpi;
    at = at == size - 1 ? 0 : at + 1;
    return 0;
  }
};

TEST_F(flowpath_tables, the_ring_forgets_at_its_wrap_and_never_looks_at_its_oldest) {
  max_fi_array_entries = 512;
  EXPECT_EQ(0, is_flowpath_instance_duplicate(inst, 5)) << "no ring yet";
  for (const int size : {1, 2, 3, 7, 512}) {
    wllb_zarray_free(inst->recent_fpi_array, ring_growth);
    wllb_zarray_reserve(inst->recent_fpi_array, size, ring_growth); // the smaller of the two sizes counts
    inst->cur_fpi_index = 0;
    walked_ring model = {std::vector<int64_t>(static_cast<size_t>(size))};
    for (int i = 0; i < 5000; ++i) {
      const int64_t fpi = 1 + below(size * 2 + 2);
      ASSERT_EQ(model.ask(fpi), is_flowpath_instance_duplicate(inst, fpi)) << size << " " << i;
    }
    EXPECT_EQ(model.at, inst->cur_fpi_index);
  }
}

// --- segments -------------------------------------------------------------------------------------------------------

TEST_F(flowpath_tables, segments_are_found_in_an_order_made_on_demand) {
  std::vector<int64_t> model;
  bool sorted = false;
  const auto search = [&](int64_t fpi) {
    if (!sorted)
      std::sort(model.begin(), model.end());
    sorted = true;
    const auto found = std::find(model.begin(), model.end(), fpi);
    return found == model.end() ? -1 : static_cast<int>(found - model.begin());
  };
  const int64_t base = 0x5000000070000000; // close to the middle of the low words, so that their difference may wrap
  for (int step = 0; step < 20000; ++step) {
    const int64_t fpi = base + int64_t{below(200)} * 0x100000;
    const int expected = search(fpi);
    int index = 99;
    const segment_fp_t *found = search_segment_array_using_fpi(inst, fp, fpi, &index);
    ASSERT_EQ(expected, index);
    ASSERT_EQ(expected < 0, found == nullptr);
    if (expected >= 0) {
      remove_from_segment_array(inst, fp, step % 2 ? expected : -1, fpi);
      model.erase(model.begin() + expected);
    }
    for (int more = below(3); more > 0; --more) { // some without a search in between
      const int64_t added = base + int64_t{200 + step * 3 + more} * (step % 5 == 0 ? -1 : 1);
      ASSERT_EQ(-1, insert_in_segment_array(inst, fp, added)->bci_urlid);
      sorted = sorted && (model.empty() || added >= model.back());
      model.push_back(added);
    }
    while (fp->seg_arr.used > 60) {
      remove_from_segment_array(inst, fp, 7, 0);
      model.erase(model.begin() + 7);
    }
    if (expected < 0) {
      sorted = sorted && (model.empty() || fpi >= model.back());
      model.push_back(fpi);
      insert_in_segment_array(inst, fp, fpi);
    }
    ASSERT_EQ(model, segment_order()) << step;
  }
}

TEST_F(flowpath_tables, the_sort_sees_low_words_and_the_search_whole_numbers) {
  constexpr int64_t a = 0x100000005, b = 0x200000003, c = 1;
  search_segment_array_using_fpi(inst, fp, a, nullptr); // an empty array is in order
  insert_in_segment_array(inst, fp, a);
  insert_in_segment_array(inst, fp, b);
  EXPECT_TRUE(search_segment_array_using_fpi(inst, fp, a, nullptr)) << "they came in order";
  insert_in_segment_array(inst, fp, c);
  EXPECT_TRUE(search_segment_array_using_fpi(inst, fp, b, nullptr));
  EXPECT_EQ((std::vector<int64_t>{c, b, a}), segment_order());
  EXPECT_FALSE(search_segment_array_using_fpi(inst, fp, a, nullptr)) << "it lies behind a larger number now";
  remove_from_segment_array(inst, fp, -1, a);
  EXPECT_EQ(3, fp->seg_arr.used);
  while (fp->seg_arr.used > 0)
    remove_from_segment_array(inst, fp, 0, 0);
}

// --- expected segments ------------------------------------------------------------------------------------------

// A number as its components, each as decimal digits without leading zeros and with its length in front.
std::vector<std::pair<size_t, std::string>> components(const std::string &number) {
  std::vector<std::pair<size_t, std::string>> parts;
  for (size_t at = 0; at != number.npos;) {
    const size_t dot = number.find('.', at);
    std::string part = number.substr(at, dot == number.npos ? dot : dot - at);
    part.erase(0, std::min(part.find_first_not_of('0'), part.size()));
    parts.emplace_back(part.size(), part);
    at = dot == number.npos ? dot : dot + 1;
  }
  return parts;
}

TEST_F(flowpath_tables, begin_sequence_numbers_are_ordered_by_component) {
  EXPECT_LT(compare_begin_seq_num_str(nullptr, ""), 0);
  EXPECT_LT(compare_begin_seq_num_str("1.9", "1.10"), 0);
  EXPECT_LT(compare_begin_seq_num_str("2", "2.1"), 0);
  const std::string huge(500, '9');
  EXPECT_GT(compare_begin_seq_num_str(huge.c_str(), ("-" + huge).c_str()), 0);
  EXPECT_EQ(0, compare_begin_seq_num_str((huge + "1").c_str(), huge.c_str())) << "far beyond what anybody counts to";
  const auto order = [](const std::string &a, const std::string &b) {
    const int difference = compare_begin_seq_num_str(a.c_str(), b.c_str());
    return (difference > 0) - (difference < 0);
  };
  for (const std::string_view characters : {"0123.4.", "019..- +x\t"})
    for (int i = 0; i < 20000; ++i) {
      std::string texts[3];
      for (std::string &text : texts)
        for (int length = 1 + below(i % 2 ? 4 : 10); length > 0; --length)
          text += characters[static_cast<size_t>(below(static_cast<int>(characters.size())))];
      const auto &[a, b, c] = texts;
      SCOPED_TRACE(a + "," + b + "," + c);
      ASSERT_EQ(order(a, b), -order(b, a));
      ASSERT_FALSE(order(a, b) <= 0 && order(b, c) <= 0 && order(a, c) > 0);
      if (characters.size() == 7) { // digits and dots alone
        ASSERT_EQ((components(a) > components(b)) - (components(a) < components(b)), order(a, b));
      }
    }
}

TEST_F(flowpath_tables, expected_segments_keep_the_order_of_their_announcement_until_somebody_searches) {
  for (const int keyword : {0, 1}) {
    tqp_free_fp_mem_on_completion = keyword;
    std::vector<std::string> model;
    bool sorted = false;
    const auto less = [](const std::string &a, const std::string &b) { return components(a) < components(b); };
    const auto search = [&](const std::string &key) {
      if (!model.empty() && !std::exchange(sorted, true))
        std::stable_sort(model.begin(), model.end(), less);
      return std::find(model.begin(), model.end(), key) != model.end();
    };
    const auto add = [&](const std::string &key) {
      sorted = sorted && (model.empty() || !less(key, model.back()));
      model.push_back(key);
    };
    for (int step = 0; step < 3000; ++step) {
      const std::string key = wllb_format("1.%d.%d", below(30), below(12)) + (step % 3 ? "" : ".1");
      const bool expected = search(key);
      const auto *found = search_pending_segment_array_using_begin_seq_number(inst, fp, key.c_str());
      ASSERT_EQ(expected, found != nullptr);
      ASSERT_TRUE(!found || key == wllb_text_view(found->begin_seq_number));
      ASSERT_EQ(model, pending_order()) << step;
      ASSERT_EQ(!expected, tqp_announce_segment(inst, fp, key.c_str()));
      if (!expected)
        add(key);
      for (int more = below(8) == 0 ? 2 : 0; more > 0; --more) { // without a search in between
        const std::string late = wllb_format("%d.%d", 2 + below(9), step * 2 + more);
        insert_in_pending_segment_array(inst, fp, late, PENDING_ARRIVED);
        add(late);
      }
      ASSERT_EQ(model, pending_order()) << step;
      while (!model.empty() && (model.size() > 50 || below(3) == 0)) {
        const int gone = below(static_cast<int>(model.size()));
        remove_from_pending_segment_array(inst, fp, gone);
        model.erase(model.begin() + gone);
      }
    }
    while (fp->pending_seg_arr.used > 0)
      remove_from_pending_segment_array(inst, fp, fp->pending_seg_arr.used - 1);
    fp->pending_seg_arr_sorted_flag = 0;
  }
}

TEST_F(flowpath_tables, the_limit_refuses_one_more_expected_segment) {
  for (int i = 0; i < 50000; ++i)
    ASSERT_TRUE(tqp_announce_segment(inst, fp, wllb_format("1.%d", i * 7919 % 50000).c_str()));
  EXPECT_FALSE(tqp_announce_segment(inst, fp, "1.50000"));
  EXPECT_FALSE(tqp_announce_segment(inst, fp, "1.1"));
  EXPECT_FALSE(insert_in_pending_segment_array(inst, fp, "1.50000", PENDING_ARRIVED));
  EXPECT_EQ(50000, fp->pending_seg_arr.used);
}

// --- what a removal leaves behind ---------------------------------------------------------------------------------

void give_bytes(wllb_text &text, size_t size) {
  text.data = static_cast<char *>(wllb_grow_block(text.data, text.size, size, "test"));
  text.size = size;
  text.len = size - 1;
  memset(text.data, 'x', text.len);
}

constexpr wllb_text segment_fp_t::*large_texts[] = {&segment_fp_t::seq_blob,          &segment_fp_t::signstr,
                                                    &segment_fp_t::req_detail_buf,    &segment_fp_t::request_body_buf,
                                                    &segment_fp_t::response_body_buf, &segment_fp_t::dynamic_data_buf};

// Every field set, every buffer there.
void fill(segment_fp_t *segment, size_t large, size_t small) {
  segment_fp_t buffers = *segment; // a used pool slot has some already
  memset(reinterpret_cast<char *>(segment) + sizeof segment->slot, 0x5A, sizeof *segment - sizeof segment->slot);
  for (const auto text : large_texts)
    give_bytes(segment->*text = buffers.*text, large);
  segment->sqb_malloced_len = segment->signstr_malloced_len = static_cast<int64_t>(large);
  give_bytes(segment->callout_buf = buffers.callout_buf, small);
  give_bytes(segment->side_texts = buffers.side_texts, small + 3072);
  give_bytes(segment->begin_seq_num = buffers.begin_seq_num, 3000);
  record_array_room(segment->method_call_stack = buffers.method_call_stack, 16, 16, "test");
  segment->method_call_stack.used = 3;
  for (const int row : {0, 7, 15}) // rows above the top may have texts, too
    segment->method_call_stack.data[row].callout_info = segment->method_call_stack.data[row].uninstr_mtd = {1, 1};
  record_array_room(segment->ctarray = buffers.ctarray, 4, 4, "test");
  segment->ctarray.data[3].time = 9;
  segment->mtarray = buffers.mtarray;
  segment->mta_index = buffers.mta_index;
  tq_update_mtarray(segment, 77, {}, 1000);
  segment->sqlarray = buffers.sqlarray;
  segment->sqla_index = buffers.sqla_index;
  tq_update_sqlarray(segment, 12, 3.5, 1000, 'E', 4);
}

// A copy without its buffers: nothing else may be left of it but the missing URL id.
void expect_fields_reset(segment_fp_t rest) {
  EXPECT_EQ(-1, rest.bci_urlid);
  rest.bci_urlid = 0;
  const auto expect_empty = [](wllb_text &text) {
    EXPECT_STREQ("", wllb_text_str(text));
    EXPECT_EQ(0U, std::exchange(text, {}).len);
  };
  for (const auto text : large_texts)
    expect_empty(rest.*text);
  expect_empty(rest.begin_seq_num);
  expect_empty(rest.callout_buf);
  expect_empty(rest.side_texts);
  rest.sqb_malloced_len = rest.signstr_malloced_len = 0;
  EXPECT_EQ(0, rest.method_call_stack.used);
  EXPECT_EQ(0, rest.sqlarray.used);
  rest.method_call_stack = {};
  rest.ctarray = {};
  rest.mtarray = {};
  rest.mta_index = {};
  rest.sqlarray = {};
  rest.sqla_index = {};
  const char *bytes = reinterpret_cast<const char *>(&rest) + sizeof rest.slot;
  EXPECT_EQ(bytes + sizeof rest - sizeof rest.slot,
            std::find_if(bytes, bytes + sizeof rest - sizeof rest.slot, [](char c) { return c != 0; }));
}

TEST_F(flowpath_tables, a_removed_segment_keeps_small_buffers_only_when_told_to) {
  for (const int keyword : {0, 1})
    for (const int more : {0, 1}) {
      SCOPED_TRACE(keyword * 10 + more);
      tqp_free_fp_mem_on_completion = keyword;
      segment_fp_t *segment = insert_in_segment_array(inst, fp, 5);
      fill(segment, 16384 + static_cast<size_t>(more), 1024 + static_cast<size_t>(more));
      remove_from_segment_array(inst, fp, 0, 5);
      expect_fields_reset(*segment);
      const bool keeps = keyword == 0, keeps_by_size = keeps && more == 0;
      EXPECT_EQ(keeps_by_size, segment->callout_buf.data != nullptr);
      EXPECT_EQ(keeps_by_size, segment->side_texts.data != nullptr);
      for (size_t i = 0; i < std::size(large_texts); ++i) // bodies have no limit
        EXPECT_EQ(i < 3 ? keeps_by_size : keeps, (segment->*large_texts[i]).data != nullptr);
      EXPECT_EQ(keeps_by_size ? 16384 : 0, segment->sqb_malloced_len);
      EXPECT_EQ(keeps_by_size ? 16384 : 0, segment->signstr_malloced_len);
      EXPECT_EQ(3000U, segment->begin_seq_num.size);
      ASSERT_EQ(keeps ? 16 : 0, segment->method_call_stack.room);
      ASSERT_EQ(keeps ? 4 : 0, segment->ctarray.room);
      EXPECT_EQ(keeps ? 1 : 0, segment->mtarray.used);
      ASSERT_EQ(keeps, segment->mtarray.room > 0);
      ASSERT_EQ(keeps, segment->sqlarray.room > 0);
      if (!keeps)
        continue;
      EXPECT_EQ(0U, segment->method_call_stack.data[15].uninstr_mtd.first);
      EXPECT_EQ(0, segment->ctarray.data[3].time);
      EXPECT_EQ(0, id_index_find(segment->mta_index, 77)) << "its writer has not cleared it";
      EXPECT_EQ(-1, id_index_find(segment->sqla_index, 12));
    }
}

} // namespace
