// quarry.hpp: typed trace points for C++17, header-only over the C ABI of quarry.h.
// Thread contract: trace calls are lock-free and may run on any thread (as quarry_internal);
// a provider object's constructor opens its handle and must finish before the provider's trace
// calls record anything (until then they are disabled calls). Nothing here throws.
//
// A provider is declared once, as a list of its trace points (index, name, message, typed and
// named arguments) and spans:
/*
 *   #define NET_TRACE(POINT, SPAN)                                                            \
 *     POINT(0, request, "request {id} for {path}", (uint32_t, id), (std::string_view, path))  \
 *     POINT(1, reply, "reply {status}", (int32_t, status), (uint64_t, bytes))                 \
 *     SPAN(2, handle, "handling request {id}", (uint32_t, id))
 *   QUARRY_PROVIDER(net_trace, "net", "net.dec", NET_TRACE);
 */
// which gives checked calls (net_trace::request(7, path)), the handle's trace point count
// (net_trace::trace_point_count, one above the highest index), scoped spans (auto s =
// net_trace::handle(id) records handle_begin now and handle_end when s goes out of scope),
// and the decode file (quarry::decode_file_text<net_trace>(), which the CMake function
// quarry_decode_file writes at build time). See docs/typed-trace-points.md.
#pragma once

#include <stdint.h>
#include <string.h>

#include <string>
#include <string_view>
#include <type_traits>

#include "quarry/quarry.h"

namespace quarry {
namespace detail {

// ---- Argument types ---------------------------------------------------------------------------

template <class T>
using bare = std::remove_cv_t<std::remove_reference_t<T>>;

template <class T>
constexpr bool is_string_type = std::is_same_v<T, const char*> || std::is_same_v<T, char*> ||
                                std::is_same_v<T, std::string_view> ||
                                std::is_same_v<T, std::string> || std::is_same_v<T, std::nullptr_t>;

template <class T>
constexpr bool is_integer_type = (std::is_integral_v<T> || std::is_enum_v<T>)&&sizeof(T) <= 8;

template <class T, bool = std::is_enum_v<T>>
struct integer_of {
  using type = T;
};
template <class T>
struct integer_of<T, true> {
  using type = std::underlying_type_t<T>;
};

// The type code of a declared argument type: 'd' integers of up to 32 bits, 'D' 64-bit
// integers, 's' strings, 0 anything else.
template <class T>
constexpr char code_of() {
  using B = bare<T>;
  if constexpr (is_string_type<B>) {
    return 's';
  } else if constexpr (is_integer_type<B>) {
    return sizeof(B) <= 4 ? 'd' : 'D';
  } else {
    return 0;
  }
}

template <class T>
constexpr bool is_unsigned_decl() {
  using B = bare<T>;
  if constexpr (is_integer_type<B>) {
    return std::is_unsigned_v<typename integer_of<B>::type>;
  } else {
    return false;
  }
}

template <class T>
constexpr bool declared_ok() {
  static_assert(code_of<T>() != 0,
                "quarry: a trace point argument is declared with a type that cannot be recorded: "
                "use an integer or enum of up to 64 bits, const char*, std::string_view or "
                "std::string (floating point, pointers and structures are not recorded)");
  return true;
}

// Checks one call argument of type A against the declared type Decl. Each mistake has its own
// message; the compiler's notes name the trace point and the types.
template <class Decl, class A>
constexpr bool argument_ok() {
  using B = std::decay_t<A>;
  constexpr char code = code_of<Decl>();
  if constexpr (code == 's') {
    static_assert(is_string_type<B>,
                  "quarry: this argument is declared as a string: pass a const char*, "
                  "std::string_view or std::string");
  } else {
    static_assert(!std::is_floating_point_v<B>,
                  "quarry: floating-point values are not recorded: pass an integer");
    static_assert(!is_string_type<B> && !std::is_pointer_v<B>,
                  "quarry: this argument is declared as an integer: a string or pointer was "
                  "passed");
    static_assert(std::is_floating_point_v<B> || is_string_type<B> || std::is_pointer_v<B> ||
                      is_integer_type<B>,
                  "quarry: this argument is declared as an integer: pass an integer or an enum");
    static_assert(code == 'D' || sizeof(B) <= 4,
                  "quarry: a 64-bit value passed to an argument declared with 32 bits would be "
                  "truncated: declare the argument 64-bit or cast the value");
  }
  return true;
}

template <class A>
inline uint64_t integer_value(const A& a) {
  using B = bare<A>;
  if constexpr (std::is_enum_v<B>) {
    return static_cast<uint64_t>(static_cast<std::underlying_type_t<B>>(a));
  } else {
    return static_cast<uint64_t>(a);
  }
}

// A string argument as the record entries take it: the length is measured once here (a
// literal's by the compiler); bytes after an embedded NUL are left out, as a NUL-terminated
// string would end there.
inline quarry_string string_value(const char* text, uint32_t words_before) {
  return quarry_string{text, text != nullptr ? static_cast<uint32_t>(strlen(text)) : 0,
                       words_before};
}
inline quarry_string string_value(std::nullptr_t, uint32_t words_before) {
  return quarry_string{nullptr, 0, words_before};
}
inline quarry_string string_value(std::string_view text, uint32_t words_before) {
  size_t length = text.size() > 0xFFFFFFFFu ? 0xFFFFFFFFu : text.size();
  if (length == 0) return quarry_string{"", 0, words_before};
  return quarry_string{text.data(), static_cast<uint32_t>(strnlen(text.data(), length)),
                       words_before};
}
inline quarry_string string_value(const std::string& text, uint32_t words_before) {
  return string_value(std::string_view(text), words_before);
}

// ---- Records ----------------------------------------------------------------------------------

// The layout of a trace point's record, from its declared argument types.
template <class... Decl>
struct point_args {
  static constexpr uint32_t count = sizeof...(Decl);
  static constexpr uint32_t words = (0u + ... +
                                     (code_of<Decl>() == 'D'   ? 2u
                                      : code_of<Decl>() == 'd' ? 1u
                                                               : 0u));
  static constexpr uint32_t strings = (0u + ... + (code_of<Decl>() == 's' ? 1u : 0u));
  static constexpr char signature[] = {code_of<Decl>()..., '\0'};
  static constexpr bool is_unsigned[] = {is_unsigned_decl<Decl>()..., false};
  static_assert((true && ... && declared_ok<Decl>()), "quarry: see the message above");
  static_assert(words <= 29, "quarry: a record holds at most 29 numeric words ('D' counts 2)");

  template <class Decl1, class A>
  static void put(uint32_t* w, uint32_t& nw, quarry_string* s, uint32_t& ns, const A& a) {
    constexpr char code = code_of<Decl1>();
    if constexpr (code == 's') {
      s[ns++] = string_value(a, nw);
    } else if constexpr (code == 'D') {
      const uint64_t v = integer_value(a);
      w[nw++] = static_cast<uint32_t>(v >> 32);
      w[nw++] = static_cast<uint32_t>(v);
    } else {
      w[nw++] = static_cast<uint32_t>(integer_value(a));
    }
  }

  // Lays the values out and calls the entry made for this shape: quarry_record0..4 for up to
  // four numeric words, quarry_record_words beyond, quarry_record_strings with strings.
  template <class... A>
  static void write(quarry_handle* handle, uint32_t index, const A&... a) {
    uint32_t w[words > 0 ? words : 1];
    quarry_string s[strings > 0 ? strings : 1];
    uint32_t nw = 0, ns = 0;
    (void)nw;
    (void)ns;
    (put<Decl>(w, nw, s, ns, a), ...);
    if constexpr (strings > 0) {
      quarry_record_strings(handle, index, w, words, s, strings);
    } else if constexpr (words == 0) {
      quarry_record0(handle, index);
    } else if constexpr (words == 1) {
      quarry_record1(handle, index, w[0]);
    } else if constexpr (words == 2) {
      quarry_record2(handle, index, w[0], w[1]);
    } else if constexpr (words == 3) {
      quarry_record3(handle, index, w[0], w[1], w[2]);
    } else if constexpr (words == 4) {
      quarry_record4(handle, index, w[0], w[1], w[2], w[3]);
    } else {
      quarry_record_words(handle, index, w, words);
    }
  }

  // One checked trace call. Disabled: one load of the provider's view, one of its `enabled`
  // byte and a branch; nothing else runs, not even the arguments' conversions.
  template <class Provider, uint32_t Index, class... A>
  __attribute__((always_inline)) static void record(const A&... a) {
    static_assert(sizeof...(A) == count,
                  "quarry: wrong number of arguments for this trace point (see its declaration)");
    static_assert((true && ... && argument_ok<Decl, A>()), "quarry: see the message above");
    static_assert(Index < Provider::trace_point_count, "quarry: index outside the provider");
    // Acquire (a plain load on x86-64): a view published by the provider's constructor on
    // another thread comes with the handle it points to and with quarry_handle_.
    const unsigned char* view = __atomic_load_n(&Provider::quarry_view_, __ATOMIC_ACQUIRE);
    if (__builtin_expect(
            __atomic_load_n(view + QUARRY_HANDLE_ENABLED_OFFSET, __ATOMIC_RELAXED) != 0, 0)) {
      write(__atomic_load_n(&Provider::quarry_handle_, __ATOMIC_RELAXED), Index, a...);
    }
  }
};

// What a provider's view points to until its handle is open: a disabled handle's bytes.
alignas(8) inline constexpr unsigned char closed_view[sizeof(quarry_handle_view)] = {};

template <class P>
struct provider_state {
  using quarry_self_ = P;
  static inline quarry_handle* quarry_handle_ = nullptr;
  static inline const unsigned char* quarry_view_ = closed_view;
};

// One trace point of a provider, as the decode file describes it.
struct point_info {
  uint32_t index;
  const char* name;
  const char* signature;
  const char* arg_names;    // " a b c": each name after a blank
  const bool* is_unsigned;  // per argument
  const char* marker_kind;  // "", "begin" or "end"
  const char* span;         // the span's name, or ""
  const char* message;      // may be empty
};

}  // namespace detail

// A scoped span: records the end trace point of its span when it goes out of scope (the begin
// trace point was recorded when it was made). Neither copied nor moved, so each begin has
// exactly one end, on the same thread.
template <class Provider, uint32_t EndIndex>
class [[nodiscard]] span {
 public:
  span() = default;
  span(const span&) = delete;
  span& operator=(const span&) = delete;
  ~span() { detail::point_args<>::record<Provider, EndIndex>(); }
};

// Opens a provider's handle: `size` bytes of buffer (see quarry_open_internal), or a handle in
// `parent`'s buffer. From then on the provider's trace calls record. `result()` is
// quarry_open_internal's result; on failure the calls stay disabled.
template <class P>
class provider {
 public:
  explicit provider(unsigned size, quarry_handle* parent = nullptr, const char* tag = "1") {
    quarry_handle* handle = nullptr;
    result_ = quarry_open_internal(&handle, P::handle_name, size, P::trace_point_count,
                                   P::decode_file, tag, parent);
    if (result_ == 0 && handle != nullptr) {
      __atomic_store_n(&P::quarry_handle_, handle, __ATOMIC_RELAXED);
      __atomic_store_n(&P::quarry_view_, reinterpret_cast<const unsigned char*>(handle),
                       __ATOMIC_RELEASE);
    }
  }
  provider(const provider&) = delete;
  provider& operator=(const provider&) = delete;

  int result() const { return result_; }
  quarry_handle* handle() const { return __atomic_load_n(&P::quarry_handle_, __ATOMIC_RELAXED); }

 private:
  int result_ = 0;
};

// The decode file of a provider (docs/decode-files.md), one line per trace point, from the
// same declaration as the calls.
template <class P>
std::string decode_file_text() {
  std::string out = "# ";
  out += P::decode_file;
  out += ": trace points of the handle \"";
  out += P::handle_name;
  out += "\", generated from its provider declaration; do not edit.\n";
  P::quarry_for_each_point_([&out](const detail::point_info& p) {
    out += std::to_string(p.index) + " " + p.name + " " + (p.signature[0] ? p.signature : "-");
    size_t arg = 0;
    for (const char* c = p.arg_names; *c != '\0'; ++c) {
      if (*c == ' ') {
        if (arg > 0 && p.is_unsigned[arg - 1]) out += ":u";
        ++arg;
      }
      out += *c;
    }
    if (arg > 0 && p.is_unsigned[arg - 1]) out += ":u";
    if (p.marker_kind[0] != '\0') out += std::string(" @") + p.marker_kind + ":" + p.span;
    if (p.message[0] != '\0') out += std::string(" = ") + p.message;
    out += '\n';
  });
  return out;
}

// What the decoder would reject in a provider's messages: a placeholder {name} that names no
// argument, more {} than arguments, an unmatched brace. One line per problem, empty when none;
// quarry_decode_file fails the build on any.
template <class P>
std::string decode_file_problems() {
  std::string out;
  P::quarry_for_each_point_([&out](const detail::point_info& p) {
    const std::string names = std::string(p.arg_names) + " ";
    size_t args = 0, next = 0;
    for (const char* c = p.arg_names; *c != '\0'; ++c) args += *c == ' ';
    const std::string message = p.message;
    for (size_t i = 0; i < message.size(); ++i) {
      if ((message[i] == '{' || message[i] == '}') && i + 1 < message.size() &&
          message[i + 1] == message[i]) {
        ++i;  // {{ or }}
        continue;
      }
      if (message[i] == '}') {
        out += std::string(p.name) + ": unmatched } in the message\n";
        continue;
      }
      if (message[i] != '{') continue;
      const size_t end = message.find('}', i);
      if (end == std::string::npos) {
        out += std::string(p.name) + ": unmatched { in the message\n";
        break;
      }
      const std::string name = message.substr(
          i + 1, message.find(':', i) < end ? message.find(':', i) - i - 1 : end - i - 1);
      if (name.empty() ? next++ >= args : names.find(" " + name + " ") == std::string::npos) {
        out += std::string(p.name) + ": the message placeholder {" +
               message.substr(i + 1, end - i - 1) + "} names no argument\n";
      }
      i = end;
    }
  });
  return out;
}

// A C header (C99) with a typed inline function per trace point of a provider, generated from
// the same declaration, for C hosts: <provider>_<point>(args...) records through the weak
// handle variable <provider>_quarry_handle, which <provider>_open() sets. Argument types follow
// the codes: int32_t/uint32_t for 'd', int64_t/uint64_t for 'D', const char* for 's'.
template <class P>
std::string c_header_text() {
  const std::string prefix = P::quarry_name_;
  const std::string handle = prefix + "_quarry_handle";
  std::string out = "/* Typed trace calls of the handle \"" + std::string(P::handle_name) +
                    "\", generated from the provider " + prefix + "; do not edit. */\n";
  out += "#ifndef QUARRY_GENERATED_" + prefix + "_H\n#define QUARRY_GENERATED_" + prefix +
         "_H\n\n#include <string.h>\n\n#include \"quarry/quarry.h\"\n\n";
  out +=
      "/* One definition for the whole program (weak). */\n__attribute__((weak)) quarry_handle* " +
      handle + ";\n\n";
  out += "enum { " + prefix + "_trace_point_count = " + std::to_string(P::trace_point_count) +
         " };\n\n";
  out += "static inline int " + prefix + "_open(unsigned size, quarry_handle* parent) {\n" +
         "  return quarry_open_internal(&" + handle + ", \"" + P::handle_name + "\", size, " +
         std::to_string(P::trace_point_count) + ", \"" + P::decode_file +
         "\", \"1\", parent);\n}\n";
  P::quarry_for_each_point_([&](const detail::point_info& p) {
    std::string params, words, strings;
    size_t arg = 0, word_count = 0, string_count = 0;
    const char* name = p.arg_names;
    for (const char* code = p.signature; *code != '\0'; ++code, ++arg) {
      while (*name == ' ') ++name;
      const char* end = name;
      while (*end != ' ' && *end != '\0') ++end;
      const std::string arg_name(name, end);
      name = end;
      if (!params.empty()) params += ", ";
      if (*code == 's') {
        params += "const char* " + arg_name;
        strings += (string_count++ ? ", {" : "{") + arg_name + ", " + arg_name +
                   " ? (uint32_t)strlen(" + arg_name + ") : 0, " + std::to_string(word_count) + "}";
        continue;
      }
      const bool wide = *code == 'D';
      params +=
          std::string(p.is_unsigned[arg] ? "uint" : "int") + (wide ? "64_t " : "32_t ") + arg_name;
      if (wide) {
        words +=
            std::string(word_count ? ", " : "") + "(uint32_t)((uint64_t)" + arg_name + " >> 32)";
        ++word_count;
      }
      words += std::string(word_count ? ", " : "") + "(uint32_t)" + arg_name;
      ++word_count;
    }
    const std::string index = std::to_string(p.index);
    out += "\nstatic inline void " + prefix + "_" + p.name + "(" +
           (params.empty() ? "void" : params) + ") {\n  if (!quarry_handle_enabled(" + handle +
           ")) return;\n";
    if (string_count > 0) {
      out += "  {\n    const uint32_t words[] = {" + (words.empty() ? "0" : words) +
             "};\n    const quarry_string strings[] = {" + strings +
             "};\n    quarry_record_strings(" + handle + ", " + index + ", words, " +
             std::to_string(word_count) + ", strings, " + std::to_string(string_count) +
             ");\n  }\n";
    } else if (word_count <= 4) {
      out += "  quarry_record" + std::to_string(word_count) + "(" + handle + ", " + index +
             (words.empty() ? "" : ", " + words) + ");\n";
    } else {
      out += "  {\n    const uint32_t words[] = {" + words + "};\n    quarry_record_words(" +
             handle + ", " + index + ", words, " + std::to_string(word_count) + ");\n  }\n";
    }
    out += "}\n";
  });
  out += "\n#endif\n";
  return out;
}

}  // namespace quarry

// ---- Declaration macros -------------------------------------------------------------------------

// (type, name) pairs: the type and the quoted name.
#define QUARRY_PTYPE_(pair) QUARRY_PTYPE2_ pair
#define QUARRY_PTYPE2_(type, name) type
#define QUARRY_PNAME_(pair) QUARRY_PNAME2_ pair
#define QUARRY_PNAME2_(type, name) " " #name

// Over "message, pair..." (1 to 9 items): the pairs' types, comma-separated, or their names as
// one string.
#define QUARRY_TYPES_(...) QUARRY_CAT_(QUARRY_TYPES_, QUARRY_COUNT_(__VA_ARGS__))(__VA_ARGS__)
#define QUARRY_TYPES_1(m)
#define QUARRY_TYPES_2(m, a) QUARRY_PTYPE_(a)
#define QUARRY_TYPES_3(m, a, b) QUARRY_PTYPE_(a), QUARRY_PTYPE_(b)
#define QUARRY_TYPES_4(m, a, b, c) QUARRY_PTYPE_(a), QUARRY_PTYPE_(b), QUARRY_PTYPE_(c)
#define QUARRY_TYPES_5(m, a, b, c, d) QUARRY_TYPES_4(m, a, b, c), QUARRY_PTYPE_(d)
#define QUARRY_TYPES_6(m, a, b, c, d, e) QUARRY_TYPES_5(m, a, b, c, d), QUARRY_PTYPE_(e)
#define QUARRY_TYPES_7(m, a, b, c, d, e, f) QUARRY_TYPES_6(m, a, b, c, d, e), QUARRY_PTYPE_(f)
#define QUARRY_TYPES_8(m, a, b, c, d, e, f, g) QUARRY_TYPES_7(m, a, b, c, d, e, f), QUARRY_PTYPE_(g)
#define QUARRY_TYPES_9(m, a, b, c, d, e, f, g, h) \
  QUARRY_TYPES_8(m, a, b, c, d, e, f, g), QUARRY_PTYPE_(h)
#define QUARRY_NAMES_(...) QUARRY_CAT_(QUARRY_NAMES_, QUARRY_COUNT_(__VA_ARGS__))(__VA_ARGS__)
#define QUARRY_NAMES_1(m) ""
#define QUARRY_NAMES_2(m, a) QUARRY_PNAME_(a)
#define QUARRY_NAMES_3(m, a, b) QUARRY_PNAME_(a) QUARRY_PNAME_(b)
#define QUARRY_NAMES_4(m, a, b, c) QUARRY_NAMES_3(m, a, b) QUARRY_PNAME_(c)
#define QUARRY_NAMES_5(m, a, b, c, d) QUARRY_NAMES_4(m, a, b, c) QUARRY_PNAME_(d)
#define QUARRY_NAMES_6(m, a, b, c, d, e) QUARRY_NAMES_5(m, a, b, c, d) QUARRY_PNAME_(e)
#define QUARRY_NAMES_7(m, a, b, c, d, e, f) QUARRY_NAMES_6(m, a, b, c, d, e) QUARRY_PNAME_(f)
#define QUARRY_NAMES_8(m, a, b, c, d, e, f, g) QUARRY_NAMES_7(m, a, b, c, d, e, f) QUARRY_PNAME_(g)
#define QUARRY_NAMES_9(m, a, b, c, d, e, f, g, h) \
  QUARRY_NAMES_8(m, a, b, c, d, e, f, g) QUARRY_PNAME_(h)
#define QUARRY_MESSAGE_(...) QUARRY_MESSAGE2_(__VA_ARGS__, ~)
#define QUARRY_MESSAGE2_(m, ...) m

// The members each list entry adds to the provider's struct.
#define QUARRY_ARGS_(...) ::quarry::detail::point_args<QUARRY_TYPES_(__VA_ARGS__)>
#define QUARRY_POINT_MEMBERS_(index, name, ...)                              \
  static constexpr uint32_t name##_index = (index);                          \
  template <class... A>                                                      \
  __attribute__((always_inline)) static void name(const A&... a) {           \
    QUARRY_ARGS_(__VA_ARGS__)::template record<quarry_self_, (index)>(a...); \
  }
#define QUARRY_SPAN_MEMBERS_(index, name, ...)                           \
  QUARRY_POINT_MEMBERS_(index, name##_begin, __VA_ARGS__)                \
  QUARRY_POINT_MEMBERS_((index) + 1, name##_end, "")                     \
  template <class... A>                                                  \
  static ::quarry::span<quarry_self_, (index) + 1> name(const A&... a) { \
    name##_begin(a...);                                                  \
    return {};                                                           \
  }
// Sizes: a union of one array per entry is as large as the highest index plus one.
#define QUARRY_POINT_SIZE_(index, name, ...) char name[(index) + 1];
#define QUARRY_SPAN_SIZE_(index, name, ...) char name[(index) + 2];
// Duplicate indexes are duplicate case labels, which do not compile.
#define QUARRY_POINT_CASE_(index, name, ...) \
  case (index):                              \
    return 1;
#define QUARRY_SPAN_CASE_(index, name, ...) \
  case (index):                             \
  case (index) + 1:                         \
    return 2;
#define QUARRY_POINT_INFO_(index, name, kind, span, ...)                                \
  f(::quarry::detail::point_info{                                                       \
      (index), #name, QUARRY_ARGS_(__VA_ARGS__)::signature, QUARRY_NAMES_(__VA_ARGS__), \
      QUARRY_ARGS_(__VA_ARGS__)::is_unsigned, kind, span, QUARRY_MESSAGE_(__VA_ARGS__)});
#define QUARRY_POINT_VISIT_(index, name, ...) QUARRY_POINT_INFO_(index, name, "", "", __VA_ARGS__)
#define QUARRY_SPAN_VISIT_(index, name, ...)                           \
  QUARRY_POINT_INFO_(index, name##_begin, "begin", #name, __VA_ARGS__) \
  QUARRY_POINT_INFO_((index) + 1, name##_end, "end", #name, "")

// QUARRY_PROVIDER(provider, handle name, decode file name, LIST): the struct `provider` with a
// static function per trace point, its trace_point_count, and what decode_file_text reads.
#define QUARRY_PROVIDER(provider_, handle_name_, decode_file_, LIST)                         \
  struct provider_ : ::quarry::detail::provider_state<provider_> {                           \
    static constexpr const char* quarry_name_ = #provider_;                                  \
    static constexpr const char* handle_name = handle_name_;                                 \
    static constexpr const char* decode_file = decode_file_;                                 \
    union quarry_sizes_ {                                                                    \
      LIST(QUARRY_POINT_SIZE_, QUARRY_SPAN_SIZE_)                                            \
    };                                                                                       \
    static constexpr uint32_t trace_point_count = sizeof(quarry_sizes_);                     \
    static_assert(trace_point_count <= 65536, "quarry: a handle has at most 65536 indexes"); \
    static constexpr int quarry_unique_indexes_(uint32_t i) {                                \
      switch (i) {                                                                           \
        LIST(QUARRY_POINT_CASE_, QUARRY_SPAN_CASE_)                                          \
        default:                                                                             \
          return 0;                                                                          \
      }                                                                                      \
    }                                                                                        \
    LIST(QUARRY_POINT_MEMBERS_, QUARRY_SPAN_MEMBERS_)                                        \
    template <class F>                                                                       \
    static void quarry_for_each_point_(F&& f) {                                              \
      LIST(QUARRY_POINT_VISIT_, QUARRY_SPAN_VISIT_)                                          \
    }                                                                                        \
  }
