// The framework's value text: the tokenizer every value type's parser is written with, and the
// writer of a keyed collection in the same syntax.
//
// Grammar of a value (tokens separated by optional blanks: space, tab, CR, LF):
//   Value ( '<Namespace::Type>' , ** { ['<attr>' : <attr value> {, '<attr>' : <attr value>}] } )
// A quoted text is enclosed in single quotes; inside it a backslash escapes the next character
// (\' and \\). A collection attribute's value is either None (no members) or
//   { ['<key text>' : <member> {, '<key text>' : <member>}] }
// where the key text is what the key type's toString writes and fromString reads, and a bool
// member is True or False. collectionText writes exactly that, so it reads back.
//
// Errors, all Kel::RangeException:
//   - the text ends where a token is still required (also in the middle of a token or of a
//     quoted text): "premature end of value type <Type>" (the short type name given to the
//     scanner);
//   - another token than the one required: "expected '<token>' at column <n>", or with
//     alternatives "expected 'True' or 'False' at column <n>";
//   - text left after a whole value: "junk at column %lld deserializing %s" (the column of the
//     first non-blank leftover character; the whole text).
// Columns count from 0 at the scanner's begin. A scanner only reads; callers build their value
// in a local and hand it out once the parse succeeded, so a failed parse leaves nothing behind.
#pragma once

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <string_view>

#include "fwk/framework/Exception.h"
#include "fwk/framework/HashMap.h"

namespace Kel {

class ValueScanner {
 public:
  ValueScanner(const char* begin, const char* end, std::string typeName)
      : begin_(begin), pos_(begin), end_(end), typeName_(std::move(typeName)) {}
  ValueScanner(std::string_view text, std::string typeName)
      : ValueScanner(text.data(), text.data() + text.size(), std::move(typeName)) {}

  const char* pos() const { return pos_; }
  long long column() const { return pos_ - begin_; }

  void skipBlanks() {
    while (pos_ != end_ && (*pos_ == ' ' || *pos_ == '\t' || *pos_ == '\n' || *pos_ == '\r')) {
      ++pos_;
    }
  }

  // Moves past `n` characters that the caller has read itself (at most to the end).
  void skip(std::size_t n) { pos_ += std::min(n, static_cast<std::size_t>(end_ - pos_)); }

  // Consumes `token` when it comes next. Nothing left raises the premature-end error.
  bool accept(std::string_view token) {
    skipBlanks();
    if (pos_ == end_) prematureEnd();
    if (!rest().starts_with(token)) return false;
    pos_ += token.size();
    return true;
  }

  void expect(std::string_view token) { expectOneOf({token}); }

  // Consumes whichever of `tokens` comes next and returns its index.
  std::size_t expectOneOf(std::initializer_list<std::string_view> tokens) {
    skipBlanks();
    std::size_t index = 0;
    for (std::string_view t : tokens) {
      if (rest().starts_with(t)) {
        pos_ += t.size();
        return index;
      }
      ++index;
    }
    for (std::string_view t : tokens) {
      if (t.starts_with(rest())) prematureEnd();
    }
    std::string text = "expected ";
    index = 0;
    for (std::string_view t : tokens) {
      if (index++ != 0) text += " or ";
      text.push_back('\'');
      text.append(t);
      text.push_back('\'');
    }
    throw RangeException(text + " at column " + std::to_string(column()));
  }

  // A quoted text, without its quotes and with its escapes resolved.
  std::string quoted() {
    expect("'");
    std::string out;
    while (true) {
      if (pos_ == end_) prematureEnd();
      char c = *pos_++;
      if (c == '\'') return out;
      if (c == '\\') {
        if (pos_ == end_) prematureEnd();
        c = *pos_++;
      }
      out += c;
    }
  }

  bool boolean() { return expectOneOf({"True", "False"}) == 0; }

  // Raises the junk error when anything but blanks is left.
  void expectEndOfText() {
    skipBlanks();
    if (pos_ == end_) return;
    const std::string whole(begin_, end_);
    std::string out(whole.size() + 64, '\0');
    const int n = std::snprintf(out.data(), out.size(), "junk at column %lld deserializing %s",
                                column(), whole.c_str());
    out.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    throw RangeException(out);
  }

  [[noreturn]] void prematureEnd() const {
    throw RangeException("premature end of value type " + typeName_);
  }

 private:
  std::string_view rest() const {
    return std::string_view(pos_, static_cast<std::size_t>(end_ - pos_));
  }

  const char* begin_;
  const char* pos_;
  const char* end_;
  std::string typeName_;
};

// Reads a collection attribute's value into `into` (emptied first): None or a braced list of
// quoted keys (read with K::fromString) and bool members. On error `into` may hold part of the
// text's members: read into a collection that is dropped when the parse fails.
template <class K>
void readCollection(ValueScanner& s, HashMap<K, bool>& into) {
  into.clear();
  if (s.expectOneOf({"None", "{"}) == 0) return;
  if (s.accept("}")) return;
  do {
    const K key = K::fromString(s.quoted());
    s.expect(":");
    into.insert(key, s.boolean());
  } while (s.expectOneOf({",", "}"}) == 0);
}

// A quoted text, escaping quotes and backslashes.
inline std::string quotedText(std::string_view text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'' || c == '\\') out += '\\';
    out += c;
  }
  return out + "'";
}

// The text of a collection of bools in the syntax readCollection reads: "{'k1': True, ...}" in
// the collection's iteration order; "{}" when empty.
template <class K>
std::string collectionText(const HashMap<K, bool>& c) {
  std::string out = "{";
  for (auto [key, value] : c) {
    if (out.size() > 1) out += ", ";
    out += quotedText(key.toString()) + ": " + (value ? "True" : "False");
  }
  return out + "}";
}

}  // namespace Kel
