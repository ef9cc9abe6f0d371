// Lookups that ask Java, with every reply that Java can give: the right one, null, another object,
// an exception, an exception together with an answer, and a method that is not there. A logger that
// throws must not be noticed at all.

#include <array>
#include <list>
#include <optional>
#include <vector>

#include "fuzz_support.h"
#include "hashtable_support.h"
#include "targets.h"

namespace nimbra::fuzz {
namespace {

using test::hashtable::Bytes;

enum class Reply { kProper, kNull, kWrong, kThrow, kThrowWithAnswer, kNoMethod };
enum class Answer { kHonest, kYes, kNo };

class JavaRepliesRun : public Run<test::hashtable::HashtableTest> {
  struct Key {
    Bytes bytes;
    uint32_t hash;
    uint8_t type;
  };
  struct Stored {
    Key key;
    DefaultEntry* entry;
  };

  void play(Input& input) override {
    map_ = jni.newMapObject();
    const test::hashtable::Table table(env, newTable());  // one chain, the newest entry first
    ASSERT_NE(static_cast<MapHeader*>(table), nullptr);
    table_ = table;
    defineCallbacks();
    if (input.oneIn(4)) {
      jni.onRecord([this](const test::LogRecord&) {
        countRecord();
        jni.throwNew("java/lang/RuntimeException", "no room for the record");
      });
    }
    while (!input.atEnd()) {
      const uint32_t operation = input.below(8);
      prepare(input);
      switch (operation) {
        case 0:
        case 1: insertByBuffer(input); break;
        case 2:
        case 3: insertByArray(input); break;
        case 4: get(input); break;
        case 5: contains(input); break;
        case 6: update(input); break;
        default: remove(input); break;
      }
      ASSERT_FALSE(jni.pending().has_value());
      check();
    }
    jni.onRecord(nullptr);
  }

  // ---- Java ------------------------------------------------------------------------------------

  void prepare(Input& input) {
    deserializeReply_ = static_cast<Reply>(input.below(8) % 6);
    phantomReply_ = static_cast<Reply>(input.below(8) % 6);
    compareReply_ = static_cast<Reply>(input.below(8) % 6);
    answer_ = static_cast<Answer>(input.below(3));
    withoutMap_ = input.oneIn(16);
    calls_ = {};
  }

  // The reply to a call that answers an object; `wrong` is what a careless class might return.
  jobject reply(Reply kind, jobject proper, jobject wrong) {
    switch (kind) {
      case Reply::kProper: return proper;
      case Reply::kWrong: return wrong;
      case Reply::kThrow: throwInJava(); return nullptr;
      case Reply::kThrowWithAnswer: throwInJava(); return proper;
      default: return nullptr;
    }
  }
  void throwInJava() { jni.throwNew("java/lang/RuntimeException", "a key class is at fault"); }

  void defineCallbacks() {
    jni.onDeserialize([this](jobject buffer) {
      ++calls_.deserialize;
      EXPECT_EQ(jni.bufferBytes(buffer), searched_.bytes);
      return reply(deserializeReply_, jni.newObject("java/lang/Object", jni.bufferBytes(buffer)),
                   jni.newString(u"another class"));
    });
    jni.onAllocateDirectFromPhantom([this](jlong address, jint length) {
      ++calls_.phantom;
      const Stored* decisive = firstOther();
      if (decisive == nullptr) {
        ADD_FAILURE() << "no stored key asks for Java";
        return jobject{nullptr};
      }
      EXPECT_EQ(reinterpret_cast<void*>(address), bufferData(decisive->entry->key));
      EXPECT_EQ(length, static_cast<jint>(decisive->key.bytes.size()));
      return reply(phantomReply_, jni.newDirectBuffer(reinterpret_cast<void*>(address), length),
                   length % 2 == 0 ? jni.newHeapBuffer() : jni.newObject());
    });
    jni.onCompare([this](jobject key, jobject buffer) {
      ++calls_.compare;
      calls_.answer = answer_ == Answer::kYes;
      if (answer_ == Answer::kHonest) calls_.answer = jni.bytesOf(key) == jni.bufferBytes(buffer);
      if (compareReply_ == Reply::kThrow || compareReply_ == Reply::kThrowWithAnswer) {
        throwInJava();
        calls_.threw = true;
      }
      return compareReply_ == Reply::kThrow ? false : calls_.answer;
    });
  }

  // Takes away the methods that this operation has to do without.
  class MissingMethods {
   public:
    explicit MissingMethods(const JavaRepliesRun& run)
        : slots_{{{&deserializeMethod, deserializeMethod.load()},
                  {&allocateDirectFromPhantomMethod, allocateDirectFromPhantomMethod.load()},
                  {&compareMethod, compareMethod.load()}}} {
      const Reply replies[] = {run.deserializeReply_, run.phantomReply_, run.compareReply_};
      for (size_t i = 0; i < slots_.size(); ++i) {
        if (replies[i] == Reply::kNoMethod) *slots_[i].slot = static_cast<jmethodID>(nullptr);
      }
    }
    ~MissingMethods() {
      for (const Slot& one : slots_) *one.slot = one.method;
    }
    MissingMethods(const MissingMethods&) = delete;
    MissingMethods& operator=(const MissingMethods&) = delete;

   private:
    struct Slot {
      Relaxed<jmethodID>* slot;
      jmethodID method;
    };
    std::array<Slot, 3> slots_;
  };

  // ---- The model -------------------------------------------------------------------------------

  // The entry whose key Java is asked about, if the search comes so far.
  const Stored* firstOther() const {
    for (const Stored& one : chain_) {
      if (one.key.hash == searched_.hash && one.key.type == DESERIALIZED_TYPE_OTHER) return &one;
    }
    return nullptr;
  }

  // What the search has to find, given what Java was asked and said.
  std::list<Stored>::iterator expected() {
    const bool byJava = searched_.type == DESERIALIZED_TYPE_OTHER && !withoutMap_;
    for (auto at = chain_.begin(); at != chain_.end(); ++at) {
      if (at->key.hash != searched_.hash) continue;
      if (!byJava || at->key.type != DESERIALIZED_TYPE_OTHER) {
        if (at->key.bytes == searched_.bytes) return expectCalls(0, 0, 0, at);
        continue;
      }
      const auto none = chain_.end();
      if (deserializeReply_ == Reply::kNoMethod) return expectCalls(0, 0, 0, none);
      if (deserializeReply_ != Reply::kProper && deserializeReply_ != Reply::kWrong) {
        return expectCalls(1, 0, 0, none);
      }
      if (phantomReply_ == Reply::kNoMethod) return expectCalls(1, 0, 0, none);
      if (phantomReply_ != Reply::kProper && phantomReply_ != Reply::kWrong) {
        return expectCalls(1, 1, 0, none);
      }
      if (compareReply_ == Reply::kNoMethod) return expectCalls(1, 1, 0, none);
      if (deserializeReply_ == Reply::kProper && phantomReply_ == Reply::kProper &&
          answer_ == Answer::kHonest) {
        EXPECT_EQ(calls_.answer, at->key.bytes == searched_.bytes);
      }
      return expectCalls(1, 1, 1, calls_.answer && !calls_.threw ? at : none);
    }
    return expectCalls(0, 0, 0, chain_.end());
  }
  std::list<Stored>::iterator expectCalls(int deserialize, int phantom, int compare,
                                          std::list<Stored>::iterator result) {
    EXPECT_EQ(calls_.deserialize, deserialize);
    EXPECT_EQ(calls_.phantom, phantom);
    EXPECT_EQ(calls_.compare, compare);
    return result;
  }
  static DefaultEntry* entryAt(std::list<Stored>::iterator at, std::list<Stored>::iterator end) {
    return at == end ? nullptr : at->entry;
  }

  // ---- The operations --------------------------------------------------------------------------

  static Key key(Input& input) {
    Key result;
    result.bytes = input.bytes(3);
    for (uint8_t& one : result.bytes) one &= 1;
    result.hash = input.below(2);
    result.type = input.oneIn(4) ? DESERIALIZED_TYPE_BINARY : DESERIALIZED_TYPE_OTHER;
    return result;
  }
  jobject map() const { return withoutMap_ ? nullptr : map_; }

  // A key to search with, as Java passes it: a direct buffer.
  struct Search {
    DefaultEntry entry;
    jobject buffer;
  };
  Search search(Input& input) {
    searched_ = key(input);
    ByteBufferHeader* buffer = newKey(searched_.bytes, searched_.type);
    return {test::hashtable::searchEntry(buffer, searched_.hash),
            jni.newDirectBuffer(bufferData(buffer), static_cast<jlong>(buffer->dataSize))};
  }

  void insertByBuffer(Input& input) {
    searched_ = key(input);
    DefaultEntry* entry = test::hashtable::newEntry(env, searched_.bytes, searched_.hash,
                                                    searched_.type, input.bytes(3));
    const jobject buffer =
        jni.newDirectBuffer(bufferData(entry->key), static_cast<jlong>(entry->key->dataSize));
    insert(entry, &buffer, OBJECT_TYPE_JBYTE_BUFFER, false);
  }

  // The library makes the buffer for Java itself; that may fail, with or without an exception.
  void insertByArray(Input& input) {
    searched_ = key(input);
    DefaultEntry* entry = test::hashtable::newEntry(env, searched_.bytes, searched_.hash,
                                                    searched_.type, input.bytes(3));
    const jbyteArray array = jni.newByteArray(searched_.bytes);
    const bool refused = searched_.type == DESERIALIZED_TYPE_OTHER && input.oneIn(4);
    if (refused) {
      std::optional<test::Thrown> thrown;
      if (input.oneIn(2)) thrown = test::Thrown{test::kOutOfMemory, "no room for a buffer"};
      jni.failCall("NewDirectByteBuffer", 1, thrown);
    }
    insert(entry, &array, OBJECT_TYPE_JBYTE_ARRAY, refused);
  }

  void insert(DefaultEntry* entry, const void* javaKey, int32_t form, bool refused) {
    int32_t inserted = -1;
    Pinnable* result = nullptr;
    {
      const MissingMethods missing(*this);
      result = hashtable_insertAndPin(env, map(), table_, javaKey, form, entry, &inserted, true);
    }
    jni.clearFailures();
    if (refused) {
      EXPECT_EQ(result, nullptr) << "a key that cannot be compared is not inserted";
      EXPECT_EQ(calls_.deserialize, 0);
      jni.clearPending();  // left for Java, when there is one
    } else {
      const bool isNew = expected() == chain_.end();
      EXPECT_EQ(result, isNew ? entry : nullptr);
      if (isNew) chain_.push_front({searched_, entry});
    }
    EXPECT_EQ(inserted, result != nullptr ? 1 : 0);
    if (result != nullptr) unpinEntry(env, entry, JNI_INSERTED_PIN);
    unpinEntry(env, entry, ALLOCATION_PIN);
  }

  void get(Input& input) {
    Search wanted = search(input);
    Pinnable* found = nullptr;
    {
      const MissingMethods missing(*this);
      found = hashtable_getAndPin(env, map(), table_, &wanted.buffer, OBJECT_TYPE_JBYTE_BUFFER,
                                  &wanted.entry, true, JNI_GET_PIN);
    }
    EXPECT_EQ(found, entryAt(expected(), chain_.end()));
    if (found != nullptr) unpinEntry(env, found, JNI_GET_PIN);
  }

  void contains(Input& input) {
    Search wanted = search(input);
    int32_t found = 0;
    {
      const MissingMethods missing(*this);
      found = hashtable_containsKey(env, map(), table_, &wanted.buffer, OBJECT_TYPE_JBYTE_BUFFER,
                                    &wanted.entry);
    }
    EXPECT_EQ(found != 0, expected() != chain_.end());
  }

  void update(Input& input) {
    Search wanted = search(input);
    wanted.entry.value = newBuffer(input.bytes(3));
    ByteBufferHeader* previous = nullptr;
    Pinnable* found = nullptr;
    {
      const MissingMethods missing(*this);
      found = hashtable_updateAndPin(env, map(), table_, &wanted.buffer, OBJECT_TYPE_JBYTE_BUFFER,
                                     &wanted.entry, &previous, true);
    }
    EXPECT_EQ(found, entryAt(expected(), chain_.end()));
    EXPECT_EQ(previous != nullptr, found != nullptr);
    if (found == nullptr) {
      freeByteBufferData(env, wanted.entry.value);
      return;
    }
    unpinEntry(env, found, JNI_UPDATED_PIN);
    EXPECT_EQ(unpinToFree(env, previous, MAPENTRY_VALUE_PIN), 0);
  }

  void remove(Input& input) {
    Search wanted = search(input);
    Pinnable* found = nullptr;
    {
      const MissingMethods missing(*this);
      found = hashtable_removeAndPin(env, map(), table_, &wanted.buffer, OBJECT_TYPE_JBYTE_BUFFER,
                                     &wanted.entry, true);
    }
    const auto row = expected();
    EXPECT_EQ(found, entryAt(row, chain_.end()));
    if (found == nullptr) return;
    chain_.erase(row);
    EXPECT_EQ(found->pins, 1);
    unpinEntry(env, found, JNI_REMOVED_PIN);
  }

  void check() {
    std::vector<Pinnable*> entries;
    for (const Stored& one : chain_) {
      entries.push_back(one.entry);
      EXPECT_EQ(one.entry->pins, 1);
    }
    EXPECT_EQ(test::hashtable::chainOf(env, table_, 0), entries);
    EXPECT_EQ(test::hashtable::checkTable(env, table_), static_cast<int64_t>(chain_.size()));
    EXPECT_EQ(jni.liveLocals(), 0U);
  }

  struct Calls {
    int deserialize = 0;
    int phantom = 0;
    int compare = 0;
    bool answer = false;
    bool threw = false;
  };

  jobject map_ = nullptr;
  MapHeader* table_ = nullptr;
  std::list<Stored> chain_;
  Key searched_;
  Reply deserializeReply_ = Reply::kProper;
  Reply phantomReply_ = Reply::kProper;
  Reply compareReply_ = Reply::kProper;
  Answer answer_ = Answer::kHonest;
  bool withoutMap_ = false;
  Calls calls_;
};

}  // namespace

void fuzzJavaReplies(Input& input) {
  JavaRepliesRun run;
  run(input);
}

}  // namespace nimbra::fuzz
