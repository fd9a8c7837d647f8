// HashSet, SlotVector and RefString driven by the input's bytes beside a
// standard-library model of each; any difference aborts.
//
// Input: a stream of operations, one byte of operation and one of argument.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "foundation/hash_set.h"
#include "foundation/ref_string.h"
#include "foundation/slot_vector.h"

namespace {

struct Element {
  uint32_t key;
  bool idle;
};

// Few buckets are reached under the first masks, so keys collide often.
struct ElementTraits {
  using Key = uint32_t;
  static Key KeyOf(const Element& element) { return element.key; }
  static uint32_t Hash(Key key) { return key * 7; }
  static bool Equal(Key a, Key b) { return a == b; }
  static bool IsIdle(const Element& element) { return element.idle; }
};

using Set = klv::HashSet<Element, ElementTraits>;

void Expect(bool holds) {
  if (!holds) abort();
}

int Draw() { return 5; }  // Purge's random source, fixed for reproducible runs

// Purge removes idle elements of its own choosing: the model follows the set.
void CheckSet(Set& set, std::map<uint32_t, bool>& model, uint8_t op, uint8_t arg) {
  Element* found = set.Find(arg);
  switch (op % 4) {
    case 0: {
      Element* element = new Element{arg, (arg & 1) != 0};
      const bool inserted = set.Insert(element) == klv::InsertResult::kInserted;
      Expect(inserted == model.emplace(arg, element->idle).second);
      if (!inserted) delete element;
      break;
    }
    case 1:
      Expect(set.Remove(arg) == (model.erase(arg) == 1));
      delete found;
      break;
    case 2: {
      set.SetPurgeLimit(arg % 16);
      set.Purge(&Draw);
      std::map<uint32_t, bool> kept;
      for (klv::HashSetIterator<Element, ElementTraits> it(set); it.Advance();) {
        kept.emplace(it.Current()->key, it.Current()->idle);
      }
      for (const auto& [key, idle] : model) Expect(kept.count(key) == 1 || idle);
      Expect(kept.size() <= model.size());
      model = kept;
      break;
    }
    default:
      Expect((found != nullptr) == (model.count(arg) == 1));
  }
  Expect(set.Size() == model.size());
}

void CheckVector(klv::SlotVector<uint32_t>& vector, std::vector<uint32_t>& model, uint8_t op,
                 uint8_t arg) {
  if (op % 3 == 0) {
    vector.Append(arg);
    model.push_back(arg);
  } else if (op % 3 == 1 && !model.empty()) {
    vector.RemoveAt(arg % model.size());
    model.erase(model.begin() + arg % model.size());
  } else if (arg == 0) {
    vector.Clear(klv::ClearMode::kKeepElements);
    model.clear();
  }
  Expect(vector.Count() == model.size());
  for (uint32_t slot = 0; slot < model.size(); ++slot) Expect(vector[slot] == model[slot]);
}

void CheckString(klv::RefString& string, std::string& model, uint8_t op, uint8_t arg) {
  const char bytes[3] = {static_cast<char>(arg), 0, static_cast<char>(op)};
  if (op % 2 == 0) {
    string.Append(bytes, 1 + arg % 3);
    model.append(bytes, 1 + arg % 3);
  } else {
    klv::RefString copy = string;  // shares the body until one of them changes
    copy.Append(bytes, 1);
    Expect(copy.Length() == model.size() + 1 && string.Length() == model.size());
  }
  Expect(string.Length() == model.size() && string.Text()[model.size()] == '\0');
  Expect(memcmp(string.Text(), model.data(), model.size()) == 0);
  Expect(string.Equals(klv::RefString(model.data(), static_cast<uint32_t>(model.size()))));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Set set(4, 0);
  std::map<uint32_t, bool> set_model;
  klv::SlotVector<uint32_t> vector;
  std::vector<uint32_t> vector_model;
  klv::RefString string;
  std::string string_model;
  for (size_t at = 0; at + 1 < size; at += 2) {
    const uint8_t op = data[at] >> 2;
    if (data[at] % 3 == 0) CheckSet(set, set_model, op, data[at + 1]);
    if (data[at] % 3 == 1) CheckVector(vector, vector_model, op, data[at + 1]);
    if (data[at] % 3 == 2) CheckString(string, string_model, op, data[at + 1]);
  }
  set.DeleteAll();
  return 0;
}
