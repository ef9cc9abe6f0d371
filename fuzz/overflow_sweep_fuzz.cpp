// The overflow lists against standard lists, and the sweep over them against a sweep over the
// model: every offer, every counter, and the place where the next sweep resumes.

#include <algorithm>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "cacheiter_support.h"
#include "fuzz_support.h"
#include "targets.h"

namespace nimbra::fuzz {
namespace {

namespace natives = test::natives;

// One entry of the model.
struct Entry {
  std::string key;
  std::string value;
  uint16_t flags;  // of its node
};

// The model's cursor rests on a list's header or on one of its entries.
struct Cursor {
  int list = 0;
  LuOffHeapValue* entry = nullptr;  // null: the header
};

class OverflowSweepRun : public Run<test::SweepTest> {
  using List = std::list<LuOffHeapValue*>;

  void play(Input& input) override {
    setLevels(0);  // one sweep passes a thousand lists, with dozens of records each
    while (!input.atEnd()) {
      switch (input.below(12)) {
        case 0:
        case 1:
        case 2: put(input); break;
        case 3: change(input); break;
        case 4: drop(input); break;
        case 5: mark(input); break;
        case 6: relink(input); break;
        case 7: page(input); break;
        case 8:
        case 9:
        case 10: sweep(input); break;
        default:
          if (input.oneIn(8)) clear();
          check();
          break;
      }
      ASSERT_FALSE(jni.pending().has_value());
      dropReverseMapPins();
    }
    check();
    clear();
    check();
  }

  // ---- Lists -----------------------------------------------------------------------------------

  // A few lists at both ends of the ring, so that entries share lists and sweeps go round.
  static int listNumber(Input& input) {
    static constexpr int kUsed[] = {0, 1, 2, 7, 998, 999};
    return kUsed[input.below(std::size(kUsed))];
  }
  static std::string key(Input& input) { return "k" + std::to_string(input.below(20)); }
  LuOffHeapValue* pick(Input& input) {
    if (entries_.empty()) return nullptr;
    auto at = entries_.begin();
    std::advance(at, input.byte() % entries_.size());
    return at->second;
  }
  int listOf(const LuOffHeapValue* value) const {
    for (const auto& [number, list] : lists_) {
      if (std::find(list.begin(), list.end(), value) != list.end()) return number;
    }
    return -1;
  }
  // As every way out of a list does, also when the anchor is that entry.
  void leaveList(LuOffHeapValue* value) {
    for (auto& [number, list] : lists_) list.remove(value);
    if (anchored_ && anchor_.entry == value) anchored_ = false;
  }

  void put(Input& input) {
    const std::string name = key(input);
    const int list = listNumber(input);
    const std::string value(input.below(9), 'v');
    LuOffHeapValue* made = insertInto(list, name, value);
    ASSERT_EQ(made == nullptr, entries_.contains(name));
    if (made == nullptr) return;
    entries_[name] = made;
    model_[made] = {name, value, in_memory | recently_used};
    lists_[list].push_front(made);
  }

  void change(Input& input) {
    const std::string name = key(input);
    const std::string value(input.below(9), 'w');
    ASSERT_EQ(updateAndRelease(name, value), entries_.contains(name));
    if (!entries_.contains(name)) return;
    Entry& entry = model_[entries_[name]];
    entry.value = value;
    entry.flags = static_cast<uint16_t>((entry.flags | in_memory | recently_used) & ~on_disk);
  }

  void drop(Input& input) {
    const std::string name = key(input);
    ASSERT_EQ(remove(name), entries_.contains(name));
    if (!entries_.contains(name)) return;
    LuOffHeapValue* value = entries_[name];
    leaveList(value);
    model_.erase(value);
    entries_.erase(name);
  }

  // Flags as operations and Java set them.
  void mark(Input& input) {
    LuOffHeapValue* value = pick(input);
    if (value == nullptr) return;
    static constexpr uint16_t kFlags[] = {recently_used, PREVENT_EVICT, is_invalid};
    const uint16_t flag = kFlags[input.below(std::size(kFlags))];
    // A sweep that resumes at an invalid anchor leaves the neighbours locked, by contract.
    if (flag == is_invalid && anchored_ && anchor_.entry == value) return;
    uint16_t& flags = model_[value].flags;
    if (input.oneIn(2)) {
      changeFlags(value, flag);
      flags = static_cast<uint16_t>(flags | flag);
    } else {
      changeFlags(value, 0, flag);
      flags = static_cast<uint16_t>(flags & ~flag);
    }
  }

  // Takes a node out of its list, at any depth of its lock, and perhaps into another.
  void relink(Input& input) {
    LuOffHeapValue* value = pick(input);
    if (value == nullptr) return;
    overflow_metadata* node = nodeOf(value);
    const int depth = static_cast<int>(input.below(4));
    take(node, depth);
    EXPECT_TRUE(overflow_metadata_splice_out(env, node, depth > 0));
    EXPECT_EQ(holdCount(node), static_cast<uint32_t>(depth));
    OverflowTest::letGo(node, depth);
    leaveList(value);
    if (input.oneIn(4)) return;
    const int list = listNumber(input);
    linkInto(list, node);  // takes it into use, too
    model_[value].flags = static_cast<uint16_t>(model_[value].flags & ~is_invalid);
    lists_[list].push_front(value);
  }

  // To disk and back, as Java does it.
  void page(Input& input) {
    LuOffHeapValue* value = pick(input);
    if (value == nullptr) return;
    Entry& entry = model_[value];
    if ((entry.flags & is_invalid) != 0) return;  // Java leaves such an entry alone
    if ((entry.flags & in_memory) != 0) {
      pageOutValue(value, {input.number<int32_t>() | 1, 1 + static_cast<jint>(input.byte()), 8});
      entry.flags = static_cast<uint16_t>((entry.flags & ~in_memory) | on_disk);
    } else {
      pageInValue(value, entry.value);
      entry.flags = static_cast<uint16_t>(entry.flags | in_memory | recently_used);
    }
    // What else the two ways change is theirs to say; the model follows the node.
    EXPECT_EQ(isFlagSet(in_memory, nodeOf(value)), (entry.flags & in_memory) != 0);
    entry.flags = nodeOf(value)->flags;
  }

  void clear() {
    dropOffers();
    clearMap(map);
    entries_.clear();
    model_.clear();
    lists_.clear();
    anchored_ = anchored_ && anchor_.entry == nullptr;
  }

  // ---- The sweep over the model ----------------------------------------------------------------

  struct Sweep {
    bool running = false;
    Cursor at;
    int64_t limit = 0;
    int initialList = -1;
    test::SweepCounters counters;
  };

  void goToNextList(Sweep& sweep) {
    if (sweep.initialList == -1) {
      sweep.initialList = index_;
    } else {
      index_ = (index_ + 1) % kOverflowLists;
      if (index_ == sweep.initialList) ++sweep.counters.loops;
    }
    ++sweep.counters.lists;
  }
  // The entry behind the cursor; null at the list's end.
  LuOffHeapValue* behind(const Cursor& cursor) {
    const List& list = lists_[cursor.list];
    if (cursor.entry == nullptr) return list.empty() ? nullptr : list.front();
    auto at = std::find(list.begin(), list.end(), cursor.entry);
    return at == list.end() || ++at == list.end() ? nullptr : *at;
  }
  bool advance(Sweep& sweep) {
    for (int changes = 0; changes <= kOverflowLists; ++changes) {
      if (sweep.counters.locked == sweep.limit) break;
      LuOffHeapValue* candidate = behind(sweep.at);
      ++sweep.counters.attempts;
      if (candidate != nullptr && (model_.at(candidate).flags & is_invalid) == 0) {
        ++sweep.counters.locked;
        sweep.at.entry = candidate;
        return true;
      }
      if (candidate != nullptr) ++sweep.counters.invalid;
      goToNextList(sweep);
      sweep.at = {index_, nullptr};
    }
    sweep.running = false;
    return false;
  }
  LuOffHeapValue* nextOf(Sweep& sweep) {
    while (sweep.running && advance(sweep)) {
      uint16_t& flags = model_.at(sweep.at.entry).flags;
      if ((flags & recently_used) != 0) {
        flags = static_cast<uint16_t>(flags & ~recently_used);
        ++sweep.counters.rejected;
      } else if ((flags & in_memory) == 0) {
        ++sweep.counters.notInMemory;
      } else if ((flags & PREVENT_EVICT) == 0) {
        return sweep.at.entry;
      }
    }
    return nullptr;
  }

  void sweep(Input& input) {
    // A sweep over a few entries goes round the thousand lists once for each.
    if (++sweeps_ > 12) return;
    Sweep sweep;
    sweep.limit = 1 + input.below(16);
    init(sweep.limit, input.oneIn(2));
    const bool resumes = anchored_ && (anchor_.entry == nullptr ||
                                       (model_.at(anchor_.entry).flags & is_invalid) == 0);
    sweep.running = true;
    if (resumes) {
      sweep.at = anchor_;
      sweep.initialList = index_;
    } else {
      goToNextList(sweep);
      sweep.at = {index_, nullptr};
      advance(sweep);
    }
    expectCursor(sweep);
    const uint32_t steps = input.below(24);
    for (uint32_t step = 0; step < steps && sweep.running; ++step) {
      LuOffHeapValue* expected = nextOf(sweep);
      ASSERT_EQ(next(), expected) << "the offer";
      expectCursor(sweep);
    }
    dispose();
    // Java is done with what it was offered: an entry's last pin is its place in the map.
    dropOffers();
    anchored_ = sweep.running;
    anchor_ = sweep.at;
    EXPECT_EQ(anchor() != nullptr, anchored_);
    EXPECT_EQ(heldLockCount(), 0);
  }

  void expectCursor(const Sweep& sweep) {
    EXPECT_EQ(counters(), sweep.counters);
    if (!sweep.running) {
      EXPECT_EQ(current(), nullptr);
    } else if (sweep.at.entry != nullptr) {
      ASSERT_EQ(current(), nodeOf(sweep.at.entry));
      expectHeld(current());
    } else {
      ASSERT_EQ(current(), test::headerOf(sweep.at.list));
    }
  }

  // ---- Checks ----------------------------------------------------------------------------------

  void check() {
    for (int number = 0; number < kOverflowLists; ++number) {
      const auto list = lists_.find(number);
      if (list == lists_.end() || list->second.empty()) {
        EXPECT_EQ(test::headerOf(number)->next, test::headerOf(number)) << "list " << number;
        continue;
      }
      List found;
      for (overflow_metadata* node : test::checkList(number)) found.push_back(valueOf(node));
      EXPECT_EQ(found, list->second) << "list " << number;
    }
    for (const auto& [value, entry] : model_) {
      EXPECT_EQ(nodeOf(value)->flags, entry.flags) << "flags of " << entry.key;
      if ((value->flags & HAS_VALUE) != 0) {
        EXPECT_EQ(test::bytesOf(value->value), entry.value);
      }
      EXPECT_EQ(value->pins, 3);
    }
    EXPECT_EQ(hashtable_size(env, map->map), static_cast<int64_t>(model_.size()));
    EXPECT_EQ(bytesUsed(), sumOfSizes());
  }

  std::map<std::string, LuOffHeapValue*> entries_;
  std::map<LuOffHeapValue*, Entry> model_;
  std::map<int, List> lists_;
  int index_ = 0;  // the list that the sweep is in, kept from one to the next
  int sweeps_ = 0;
  bool anchored_ = false;
  Cursor anchor_;
};

}  // namespace

void fuzzOverflowSweep(Input& input) {
  OverflowSweepRun run;
  run(input);
}

}  // namespace nimbra::fuzz
