// SPDX-License-Identifier: Apache-2.0
#include "platform/bundle/property_list_forms.h"

#include <expat.h>
#include <fmt/format.h>

#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/bundle/property_list.h"
#include "platform/bundle/property_list_scalar.h"
#include "runtime/foundation/check.h"

namespace keel {

namespace {

// A scalar element: the text between its tags makes one value.
struct Leaf {
  std::string_view name;
  std::optional<Value> (*read)(std::string_view text);
};

std::optional<Value> textOfText(std::string_view text) {
  return Value(text);
}

template <bool boolean>
std::optional<Value> nothingElse(std::string_view text) {
  return text.empty() ? std::optional<Value>(boolean) : std::nullopt;
}

constexpr Leaf kLeaves[] = {
    {"key", textOfText},         {"string", textOfText},        {"integer", integerOfText},
    {"real", realOfText},        {"date", dateOfText},          {"data", dataOfText},
    {"true", nothingElse<true>}, {"false", nothingElse<false>},
};

const Leaf* leafNamed(std::string_view name) {
  for (const Leaf& leaf : kLeaves) {
    if (leaf.name == name) return &leaf;
  }
  return nullptr;
}

// An open array or dictionary.
struct Container {
  bool isMap = false;
  Value::List list;
  Value::Map map;
  // In a dictionary: the key whose value is still missing.
  std::optional<std::string> key;
};

// Builds the value from the parser's callbacks. The first error stops it. No exception may cross
// the parser's C frames; only memory exhaustion throws, and that ends the process.
class Builder {
 public:
  Builder();
  std::expected<Value, std::string> decode(std::span<const std::byte> bytes);

 private:
  struct Free {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
  };
  static Builder& of(void* user) { return *static_cast<Builder*>(user); }
  static void XMLCALL onDoctype(void* user, const char*, const char*, const char*,
                                int hasInternalSubset) noexcept;
  static void XMLCALL onSkippedEntity(void* user, const char* name, int) noexcept;
  static void XMLCALL onStart(void* user, const char* name, const char** attributes) noexcept;
  static void XMLCALL onEnd(void* user, const char* name) noexcept;
  static void XMLCALL onText(void* user, const char* text, int size) noexcept;

  void start(std::string_view name, const char** attributes);
  void startPlist(const char** attributes);
  void startValue(std::string_view name);
  void end(std::string_view name);
  void endContainer();
  void text(std::string_view text);
  void add(Value value);
  void refuse(std::string reason);

  std::unique_ptr<std::remove_pointer_t<XML_Parser>, Free> parser_;
  std::optional<std::string> fault_;
  bool inPlist_ = false;
  std::vector<Container> open_;
  const Leaf* leaf_ = nullptr;
  std::string text_;
  std::optional<Value> whole_;
};

Builder::Builder() : parser_(XML_ParserCreate(nullptr)) {
  KEEL_CHECK(parser_ != nullptr);
  XML_SetUserData(parser_.get(), this);
  XML_SetStartDoctypeDeclHandler(parser_.get(), onDoctype);
  XML_SetSkippedEntityHandler(parser_.get(), onSkippedEntity);
  XML_SetElementHandler(parser_.get(), onStart, onEnd);
  XML_SetCharacterDataHandler(parser_.get(), onText);
}

std::expected<Value, std::string> Builder::decode(std::span<const std::byte> bytes) {
  const auto* text = reinterpret_cast<const char*>(bytes.data());
  const bool wellFormed =
      XML_Parse(parser_.get(), text, static_cast<int>(bytes.size()), XML_TRUE) == XML_STATUS_OK;
  if (!wellFormed) refuse(XML_ErrorString(XML_GetErrorCode(parser_.get())));
  if (fault_) return std::unexpected(std::move(*fault_));
  return std::move(*whole_);
}

// Some callbacks still arrive after the parser was stopped.
void Builder::onDoctype(void* user, const char*, const char*, const char*,
                        int hasInternalSubset) noexcept {
  if (hasInternalSubset != 0) of(user).refuse("declarations within the document type are not read");
}
void Builder::onSkippedEntity(void* user, const char* name, int) noexcept {
  of(user).refuse(fmt::format("unknown entity {}", excerptOf(name)));
}
void Builder::onStart(void* user, const char* name, const char** attributes) noexcept {
  if (!of(user).fault_) of(user).start(name, attributes);
}
void Builder::onEnd(void* user, const char* name) noexcept {
  if (!of(user).fault_) of(user).end(name);
}
void Builder::onText(void* user, const char* text, int size) noexcept {
  if (!of(user).fault_) of(user).text(std::string_view(text, static_cast<std::size_t>(size)));
}

void Builder::start(std::string_view name, const char** attributes) {
  if (leaf_ != nullptr)
    return refuse(fmt::format("<{}> within <{}>", excerptOf(name), leaf_->name));
  if (!inPlist_) {
    if (name != "plist")
      return refuse(fmt::format("<{}> where <plist> should be", excerptOf(name)));
    return startPlist(attributes);
  }
  if (*attributes != nullptr) return refuse(fmt::format("<{}> with an attribute", excerptOf(name)));
  startValue(name);
}

void Builder::startPlist(const char** attributes) {
  inPlist_ = true;
  for (; *attributes != nullptr; attributes += 2) {
    if (attributes[0] != std::string_view("version") || attributes[1] != std::string_view("1.0")) {
      return refuse(fmt::format("<plist> with {}=\"{}\"", excerptOf(attributes[0]),
                                excerptOf(attributes[1])));
    }
  }
}

void Builder::startValue(std::string_view name) {
  const bool inMap = !open_.empty() && open_.back().isMap;
  if (open_.empty() && whole_) return refuse(fmt::format("<{}> after the value", excerptOf(name)));
  if (name == "key") {
    if (!inMap) return refuse("<key> outside of a dictionary");
    if (open_.back().key)
      return refuse(
          fmt::format("<key> where the value of \"{}\" should be", excerptOf(*open_.back().key)));
  } else if (inMap && !open_.back().key) {
    return refuse(fmt::format("<{}> without a <key>", excerptOf(name)));
  }
  if (name == "dict" || name == "array") {
    if (open_.size() == kPropertyListDepth)
      return refuse(fmt::format("nested more than {} deep", kPropertyListDepth));
    open_.emplace_back().isMap = name == "dict";
    return;
  }
  leaf_ = leafNamed(name);
  if (leaf_ == nullptr) return refuse(fmt::format("unknown element <{}>", excerptOf(name)));
  text_.clear();
}

void Builder::text(std::string_view text) {
  if (leaf_ != nullptr) {
    text_ += text;
  } else if (text.find_first_not_of(kPropertyListSpace) != text.npos) {
    refuse("text between elements");
  }
}

// The parser guarantees matching tags.
void Builder::end(std::string_view name) {
  if (leaf_ != nullptr) {
    const Leaf& leaf = *std::exchange(leaf_, nullptr);
    auto value = leaf.read(text_);
    if (!value) return refuse(fmt::format("<{}> holds \"{}\"", leaf.name, excerptOf(text_)));
    if (leaf.name == "key") {
      open_.back().key = std::move(text_);
    } else {
      add(std::move(*value));
    }
  } else if (name != "plist") {
    endContainer();
  } else if (!whole_) {
    refuse("<plist> without a value");
  }
}

void Builder::endContainer() {
  Container container = std::move(open_.back());
  if (container.key)
    return refuse(fmt::format("key \"{}\" without a value", excerptOf(*container.key)));
  if (const std::string* twice = findDuplicateKey(container.map)) {
    return refuse(
        fmt::format("key \"{}\" twice in the dictionary that ends here", excerptOf(*twice)));
  }
  open_.pop_back();
  add(container.isMap ? Value(std::move(container.map)) : Value(std::move(container.list)));
}

void Builder::add(Value value) {
  if (open_.empty()) {
    whole_ = std::move(value);
  } else if (Container& container = open_.back(); container.isMap) {
    container.map.push_back({std::move(*container.key), std::move(value)});
    container.key.reset();
  } else {
    container.list.push_back(std::move(value));
  }
}

void Builder::refuse(std::string reason) {
  if (fault_) return;
  fault_ = fmt::format("line {}: {}", XML_GetCurrentLineNumber(parser_.get()), reason);
  XML_StopParser(parser_.get(), XML_FALSE);
}

}  // namespace

std::expected<Value, std::string> decodeXmlPropertyList(std::span<const std::byte> bytes) {
  return Builder().decode(bytes);
}

}  // namespace keel
