/*
 * velClient.hpp - the C++17 layer over the C API: owners that free what they
 * hold (library start, messages, containers, data blocks, sessions), a
 * destination value type, typed adds and getters, range-for over fields with
 * each value as a std::variant, wire bytes and the dump as standard types,
 * and sessions on a broker with their subscriptions, acknowledgements and events.
 *
 * Header-only. Every member is one or a few calls of the C API and adds no
 * behaviour of its own. Failures throw velclient::Error carrying the return
 * code, sub-code and text of the calling thread's last error; the members
 * named try_* are noexcept and return the C return code instead.
 */
#ifndef VELCLIENT_HPP
#define VELCLIENT_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "velClientMsg.h"

namespace velclient {

using ReturnCode = velClient_returnCode_t;
using SubCode = velClient_subCode_t;

/* ---- Errors ---------------------------------------------------------------- */

/* A failed call: its return code and the thread's last-error sub-code and text. */
class Error : public std::runtime_error {
public:
    Error(ReturnCode code, SubCode subCode, const std::string &text)
        : std::runtime_error(text), code_(code), subCode_(subCode)
    {
    }
    ReturnCode code() const noexcept { return code_; }
    SubCode sub_code() const noexcept { return subCode_; }

    /* The error the calling thread's last-error record describes. */
    static Error last(ReturnCode code)
    {
        const velClient_errorInfo_t *info = velClient_getLastErrorInfo();
        return Error(code, info->subCode, info->errorStr);
    }

private:
    ReturnCode code_;
    SubCode subCode_;
};

namespace detail {

/* Throws for VELCLIENT_FAIL; any other code is returned to the caller. */
inline ReturnCode check(ReturnCode rc)
{
    if (rc == VELCLIENT_FAIL)
        throw Error::last(rc);
    return rc;
}

/* true for OK, false for NOT_FOUND (an absent value), throws for FAIL. */
inline bool found(ReturnCode rc) { return check(rc) != VELCLIENT_NOT_FOUND; }

/* A NUL-terminated copy of a string_view: on the stack when it is short. */
class CStr {
public:
    explicit CStr(std::string_view s)
    {
        if (s.size() < sizeof small_) {
            std::memcpy(small_, s.data(), s.size());
            small_[s.size()] = '\0';
            p_ = small_;
        } else {
            big_.assign(s.data(), s.size());
            p_ = big_.c_str();
        }
    }
    CStr(const CStr &) = delete;
    CStr &operator=(const CStr &) = delete;
    operator const char *() const noexcept { return p_; }

private:
    char small_[64];
    std::string big_;
    const char *p_;
};

inline std::string_view view(const char *s) noexcept { return s ? std::string_view(s) : std::string_view(); }

/* An owner of type C for the handle that f(&handle, args...) makes. */
template <class C, class F, class... A> C made(F f, A... args)
{
    typename C::Handle h = nullptr;
    check(f(&h, args...));
    return C(h);
}

} // namespace detail

/* ---- Library start and stop ------------------------------------------------- */

/* Starts the library for its lifetime; cleanup runs in the destructor. */
class Library {
public:
    explicit Library(velClient_log_level_t level = VELCLIENT_LOG_WARNING, const char *const *props = nullptr)
    {
        detail::check(velClient_initialize(level, props));
    }
    ~Library() { velClient_cleanup(); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
};

/* ---- Destinations ---------------------------------------------------------- */

enum class DestinationType : int {
    Null = VELCLIENT_NULL_DESTINATION,
    Topic = VELCLIENT_TOPIC_DESTINATION,
    Queue = VELCLIENT_QUEUE_DESTINATION,
    TempTopic = VELCLIENT_TOPIC_TEMP_DESTINATION,
    TempQueue = VELCLIENT_QUEUE_TEMP_DESTINATION,
};

/* A destination by value: its type and its name (a copy). */
struct Destination {
    DestinationType type = DestinationType::Null;
    std::string name;

    static Destination topic(std::string_view n) { return {DestinationType::Topic, std::string(n)}; }
    static Destination queue(std::string_view n) { return {DestinationType::Queue, std::string(n)}; }
    static Destination from_c(const velClient_destination_t &d)
    {
        return {static_cast<DestinationType>(d.destType), std::string(detail::view(d.dest))};
    }
    /* A C view of this value, valid while the value lives unchanged; a null
     * destination without a name has a null name pointer. */
    velClient_destination_t c() const noexcept
    {
        return {static_cast<velClient_destinationType_t>(type),
                type == DestinationType::Null && name.empty() ? nullptr : name.c_str()};
    }
    friend bool operator==(const Destination &a, const Destination &b)
    {
        return a.type == b.type && a.name == b.name;
    }
    friend bool operator!=(const Destination &a, const Destination &b) { return !(a == b); }
};

/* ---- Field values ------------------------------------------------------------ */

struct Null {
    friend bool operator==(Null, Null) { return true; }
};
/* A wide character, kept apart from the 32-bit integers. */
struct Wchar {
    velClient_wchar_t value;
    friend bool operator==(Wchar a, Wchar b) { return a.value == b.value; }
};
/* Bytes that live in a container or message buffer: a view, not a copy. */
struct Bytes {
    const std::uint8_t *data = nullptr;
    std::size_t size = 0;
    std::vector<std::uint8_t> to_vector() const { return {data, data + size}; }
};
/* A wire-format image held in a field, and a whole field (type byte, length and value) of a type this
 * build does not know, which add() passes through unchanged. */
struct Vwf : Bytes {};
struct Unknown : Bytes {};

/* ---- Containers ---------------------------------------------------------------- */

class Map;
class Stream;
class FieldIterator;

/* What a container owns: one reference to the handle, closed when the owner goes.
 * Encoding, sending, resetting and freeing a message close the message's own
 * containers; let their owners go first (a later close of such a handle is
 * refused and logged as a warning, and touches nothing). */
class Container {
public:
    Container() noexcept = default;
    explicit Container(velClient_opaqueContainer_pt handle) noexcept : h_(handle) {}
    ~Container() { try_close(); }
    Container(Container &&o) noexcept : h_(std::exchange(o.h_, nullptr)) {}
    Container &operator=(Container &&o) noexcept
    {
        if (this != &o) {
            try_close();
            h_ = std::exchange(o.h_, nullptr);
        }
        return *this;
    }
    Container(const Container &) = delete;
    Container &operator=(const Container &) = delete;

    using Handle = velClient_opaqueContainer_pt;
    velClient_opaqueContainer_pt handle() const noexcept { return h_; }
    velClient_opaqueContainer_pt release() noexcept { return std::exchange(h_, nullptr); }
    explicit operator bool() const noexcept { return h_ != nullptr; }

    ReturnCode try_close() noexcept { return h_ ? velClient_container_closeMapStream(&h_) : VELCLIENT_OK; }
    void close() { detail::check(try_close()); }
    void rewind() { detail::check(velClient_container_rewind(h_)); }
    bool has_next() const noexcept { return velClient_container_hasNextField(h_) != 0; }

    /* The encoded container (header included) and its size. */
    std::size_t size() const
    {
        std::size_t n = 0;
        detail::check(velClient_container_getSize(h_, &n));
        return n;
    }
    Bytes bytes() const
    {
        void *p = nullptr;
        velClient_uint32_t n = 0;
        detail::check(velClient_container_getContainerPtr(h_, &p, &n));
        return {static_cast<const std::uint8_t *>(p), n};
    }

    /* Adds a field: name is the key in a map and ignored (pass nullptr) in a stream. */
    template <class T> ReturnCode try_add(const T &value, const char *name) noexcept;
    template <class T> void add(const T &value, const char *name) { detail::check(try_add(value, name)); }
    ReturnCode try_add_null(const char *name) noexcept { return velClient_container_addNull(h_, name); }
    ReturnCode try_add_bytes(const void *p, std::size_t n, const char *name) noexcept
    {
        return addSized(velClient_container_addByteArray, p, n, name);
    }
    void add_null(const char *name) { detail::check(try_add_null(name)); }
    void add_bytes(const void *p, std::size_t n, const char *name) { detail::check(try_add_bytes(p, n, name)); }
    ReturnCode try_remove(const char *name) noexcept { return velClient_container_deleteField(h_, name); }
    void remove(const char *name) { detail::check(try_remove(name)); }

    /* A nested map or stream written in place; close it before adding to this one again. */
    inline Map open_map(const char *name);
    inline Stream open_stream(const char *name);

    /* Range-for over the fields, from the first (the cursor is rewound). */
    inline FieldIterator begin();
    inline FieldIterator end() noexcept;

protected:
    /* f(container, bytes, length, name) for the byte-carrying adds. */
    template <class F> ReturnCode addSized(F f, const void *p, std::size_t n, const char *name) noexcept
    {
        if (n > UINT32_MAX)
            return VELCLIENT_FAIL; /* longer than any field can hold */
        return f(h_, static_cast<const velClient_uint8_t *>(p), static_cast<velClient_uint32_t>(n), name);
    }
    /* The typed read that every getter shares: OK, NOT_FOUND or EOS, FAIL throws. */
    template <class T> ReturnCode try_read(T &out, const char *name) noexcept;
    template <class T> std::optional<T> read(const char *name)
    {
        T out{};
        ReturnCode rc = detail::check(try_read(out, name));
        if (rc != VELCLIENT_OK)
            return std::nullopt;
        return out;
    }

    velClient_opaqueContainer_pt h_ = nullptr;
};

/* A map: fields by name. */
class Map : public Container {
public:
    using Container::Container;

    /* A map built in caller memory, which must outlive it; it cannot grow beyond size. */
    static Map create_in(void *mem, std::size_t size)
    {
        return detail::made<Map>(velClient_container_createMap, static_cast<char *>(mem), size);
    }
    /* Opens the encoded map at p for reading (and, where the memory allows, for writing). */
    static Map open(void *p, std::size_t size)
    {
        return detail::made<Map>(velClient_container_openMapFromPtr, p, static_cast<velClient_uint32_t>(size));
    }

    /* The value of name as T through the conversion rules; nullopt when absent. */
    template <class T> std::optional<T> get(const char *name) { return read<T>(name); }
    template <class T> ReturnCode try_get(const char *name, T &out) noexcept { return try_read(out, name); }
    bool contains(const char *name)
    {
        velClient_field_t f;
        ReturnCode rc = detail::check(velClient_container_getField(h_, &f, sizeof f, name));
        if (rc == VELCLIENT_OK && (f.type == VELCLIENT_MAP || f.type == VELCLIENT_STREAM))
            velClient_container_closeMapStream(&f.value.map);
        return rc == VELCLIENT_OK;
    }
};

/* A stream: fields in order, read one after the other. */
class Stream : public Container {
public:
    using Container::Container;

    static Stream create_in(void *mem, std::size_t size)
    {
        return detail::made<Stream>(velClient_container_createStream, static_cast<char *>(mem), size);
    }
    static Stream open(void *p, std::size_t size)
    {
        return detail::made<Stream>(velClient_container_openStreamFromPtr, p, static_cast<velClient_uint32_t>(size));
    }

    template <class T> void add(const T &value) { Container::add(value, nullptr); }
    /* The next value as T; nullopt at the end of the stream. */
    template <class T> std::optional<T> next() { return read<T>(nullptr); }
    template <class T> ReturnCode try_next(T &out) noexcept { return try_read(out, nullptr); }
};

inline Map Container::open_map(const char *name)
{
    return detail::made<Map>([this](Handle *h, const char *n) { return velClient_container_openSubMap(h_, h, n); },
                             name);
}

inline Stream Container::open_stream(const char *name)
{
    return detail::made<Stream>(
        [this](Handle *h, const char *n) { return velClient_container_openSubStream(h_, h, n); }, name);
}

/* ---- Typed adds and reads: one dispatch on the C++ type ------------------------- */

namespace detail {
template <class T> inline constexpr bool always_false = false;
template <class T> inline constexpr bool is_int = std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                                                  !std::is_same_v<T, char>;

/* The fixed-size field types the C++ types map onto: C++ type, the suffix of
 * the C add and get calls, the field type and the C field's union member. */
#define VELCLIENT_HPP_SCALARS(X)                          \
    X(std::uint8_t, Uint8, VELCLIENT_UINT8, uint8)        \
    X(std::int8_t, Int8, VELCLIENT_INT8, int8)            \
    X(std::uint16_t, Uint16, VELCLIENT_UINT16, uint16)    \
    X(std::int16_t, Int16, VELCLIENT_INT16, int16)        \
    X(std::uint32_t, Uint32, VELCLIENT_UINT32, uint32)    \
    X(std::int32_t, Int32, VELCLIENT_INT32, int32)        \
    X(std::uint64_t, Uint64, VELCLIENT_UINT64, uint64)    \
    X(std::int64_t, Int64, VELCLIENT_INT64, int64)        \
    X(float, Float, VELCLIENT_FLOAT, float32)              \
    X(double, Double, VELCLIENT_DOUBLE, float64)

template <class T> struct Scalar : std::false_type {};
#define VELCLIENT_HPP_SCALAR(T, Name, code, member)                                                    \
    template <> struct Scalar<T> : std::true_type {                                                    \
        static ReturnCode add(velClient_opaqueContainer_pt h, T v, const char *n) noexcept             \
        {                                                                                              \
            return velClient_container_add##Name(h, v, n);                                             \
        }                                                                                              \
        static ReturnCode get(velClient_opaqueContainer_pt h, T *v, const char *n) noexcept            \
        {                                                                                              \
            return velClient_container_get##Name(h, v, n);                                             \
        }                                                                                              \
    };
VELCLIENT_HPP_SCALARS(VELCLIENT_HPP_SCALAR)
#undef VELCLIENT_HPP_SCALAR

/* Any integer type is written and read as the fixed-width type of its size and signedness. */
template <class T, bool = is_int<T>> struct canonical {
    using type = T;
};
template <class T> struct canonical<T, true> {
    using type = std::conditional_t<
        std::is_signed_v<T>,
        std::conditional_t<sizeof(T) == 1, std::int8_t,
                           std::conditional_t<sizeof(T) == 2, std::int16_t,
                                              std::conditional_t<sizeof(T) == 4, std::int32_t, std::int64_t>>>,
        std::conditional_t<sizeof(T) == 1, std::uint8_t,
                           std::conditional_t<sizeof(T) == 2, std::uint16_t,
                                              std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>>;
};
template <class T> using scalar_of = Scalar<typename canonical<T>::type>;
} // namespace detail

template <class T> ReturnCode Container::try_add(const T &v, const char *name) noexcept
{
    if constexpr (std::is_same_v<T, bool>) {
        return velClient_container_addBoolean(h_, v ? 1 : 0, name);
    } else if constexpr (std::is_same_v<T, char>) {
        return velClient_container_addChar(h_, v, name);
    } else if constexpr (detail::scalar_of<T>::value) {
        using C = typename detail::canonical<T>::type;
        return detail::Scalar<C>::add(h_, static_cast<C>(v), name);
    } else if constexpr (std::is_same_v<T, Wchar>) {
        return velClient_container_addWchar(h_, v.value, name);
    } else if constexpr (std::is_same_v<T, Null>) {
        return velClient_container_addNull(h_, name);
    } else if constexpr (std::is_convertible_v<const T &, const char *>) {
        return velClient_container_addString(h_, v, name);
    } else if constexpr (std::is_same_v<T, std::string>) {
        return velClient_container_addString(h_, v.c_str(), name);
    } else if constexpr (std::is_same_v<T, std::string_view>) {
        try {
            detail::CStr s(v);
            return velClient_container_addString(h_, s, name);
        } catch (...) {
            return VELCLIENT_FAIL;
        }
    } else if constexpr (std::is_same_v<T, Vwf>) {
        return addSized(velClient_container_addVwf, v.data, v.size, name);
    } else if constexpr (std::is_same_v<T, Unknown>) {
        /* The whole field as iteration gave it (type byte, length, value), passed through verbatim. */
        return addSized(velClient_container_addUnknownField, v.data, v.size, name);
    } else if constexpr (std::is_base_of_v<Bytes, T>) {
        return try_add_bytes(v.data, v.size, name);
    } else if constexpr (std::is_same_v<T, std::vector<std::uint8_t>>) {
        return try_add_bytes(v.data(), v.size(), name);
    } else if constexpr (std::is_same_v<T, Destination>) {
        velClient_destination_t d = v.c();
        return velClient_container_addDestination(h_, &d, sizeof d, name);
    } else if constexpr (std::is_base_of_v<Container, T>) {
        return velClient_container_addContainer(h_, v.handle(), name);
    } else {
        static_assert(detail::always_false<T>, "no velclient field type for this C++ type");
    }
}

template <class T> ReturnCode Container::try_read(T &out, const char *name) noexcept
{
    if constexpr (std::is_same_v<T, bool>) {
        velClient_bool_t b = 0;
        ReturnCode rc = velClient_container_getBoolean(h_, &b, name);
        out = b != 0;
        return rc;
    } else if constexpr (std::is_same_v<T, char>) {
        return velClient_container_getChar(h_, &out, name);
    } else if constexpr (detail::scalar_of<T>::value) {
        using C = typename detail::canonical<T>::type;
        return detail::Scalar<C>::get(h_, reinterpret_cast<C *>(&out), name);
    } else if constexpr (std::is_same_v<T, Wchar>) {
        return velClient_container_getWchar(h_, &out.value, name);
    } else if constexpr (std::is_same_v<T, Null>) {
        return velClient_container_getNull(h_, name);
    } else if constexpr (std::is_same_v<T, std::string_view> || std::is_same_v<T, std::string>) {
        const char *s = nullptr;
        ReturnCode rc = velClient_container_getStringPtr(h_, &s, name);
        if (rc == VELCLIENT_OK) {
            try {
                out = T(detail::view(s));
            } catch (...) {
                return VELCLIENT_FAIL;
            }
        }
        return rc;
    } else if constexpr (std::is_same_v<T, Bytes> || std::is_same_v<T, Vwf>) {
        const velClient_uint8_t *p = nullptr;
        velClient_uint32_t n = 0;
        ReturnCode rc = std::is_same_v<T, Bytes> ? velClient_container_getByteArrayPtr(h_, &p, &n, name)
                                                 : velClient_container_getVwfPtr(h_, &p, &n, name);
        out.data = p;
        out.size = n;
        return rc;
    } else if constexpr (std::is_same_v<T, Destination>) {
        velClient_destination_t d{};
        ReturnCode rc = velClient_container_getDestination(h_, &d, sizeof d, name);
        if (rc == VELCLIENT_OK) {
            try {
                out = Destination::from_c(d);
            } catch (...) {
                return VELCLIENT_FAIL;
            }
        }
        return rc;
    } else if constexpr (std::is_same_v<T, Map> || std::is_same_v<T, Stream>) {
        velClient_opaqueContainer_pt h = nullptr;
        ReturnCode rc = std::is_same_v<T, Map> ? velClient_container_getSubMap(h_, &h, name)
                                               : velClient_container_getSubStream(h_, &h, name);
        out = T(h);
        return rc;
    } else {
        static_assert(detail::always_false<T>, "no velclient getter for this C++ type");
    }
}

/* ---- Fields and iteration -------------------------------------------------------- */

/* One field's value: the alternative is the stored type. */
using Value = std::variant<Null, bool, std::uint8_t, std::int8_t, std::uint16_t, std::int16_t, std::uint32_t,
                           std::int32_t, std::uint64_t, std::int64_t, Wchar, float, double, std::string_view,
                           Bytes, Map, Stream, Destination, Vwf, Unknown>;

/* A field read by iteration: its key (empty in a stream) and its value. */
struct Field {
    std::string_view name;
    Value value;

    /* A C field as a Value; a map or stream takes over the handle the read produced. */
    static Value to_value(velClient_field_t &f)
    {
        const std::uint8_t *raw = nullptr;
        switch (f.type) {
        case VELCLIENT_BOOL: return f.value.boolean != 0;
#define VELCLIENT_HPP_SCALAR_CASE(T, Name, code, member) \
    case code: return f.value.member;
            VELCLIENT_HPP_SCALARS(VELCLIENT_HPP_SCALAR_CASE)
#undef VELCLIENT_HPP_SCALAR_CASE
        case VELCLIENT_WCHAR: return Wchar{f.value.wchar};
        case VELCLIENT_STRING: return detail::view(f.value.string);
        case VELCLIENT_BYTEARRAY: return Bytes{f.value.bytearray, f.length};
        case VELCLIENT_MAP: return Map(f.value.map);
        case VELCLIENT_STREAM: return Stream(f.value.stream);
        case VELCLIENT_DESTINATION: return Destination::from_c(f.value.dest);
        case VELCLIENT_VWF: raw = f.value.vwf; return Vwf{{raw, f.length}};
        case VELCLIENT_NULL: return Null{};
        default: raw = f.value.unknownField; return Unknown{{raw, f.length}};
        }
    }
};

/* An input iterator that reads the next field on each step. */
class FieldIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Field;
    using difference_type = std::ptrdiff_t;
    using pointer = Field *;
    using reference = Field &;

    FieldIterator() noexcept = default;
    explicit FieldIterator(velClient_opaqueContainer_pt h) : h_(h) { advance(); }

    Field &operator*() { return field_; }
    Field *operator->() { return &field_; }
    FieldIterator &operator++()
    {
        advance();
        return *this;
    }
    friend bool operator==(const FieldIterator &a, const FieldIterator &b) { return a.h_ == b.h_; }
    friend bool operator!=(const FieldIterator &a, const FieldIterator &b) { return a.h_ != b.h_; }

private:
    void advance()
    {
        velClient_field_t f;
        const char *name = nullptr;
        if (detail::check(velClient_container_getNextField(h_, &f, sizeof f, &name)) != VELCLIENT_OK) {
            h_ = nullptr;
            return;
        }
        field_.name = detail::view(name);
        field_.value = Field::to_value(f);
    }

    velClient_opaqueContainer_pt h_ = nullptr;
    Field field_;
};

inline FieldIterator Container::begin()
{
    rewind();
    return FieldIterator(h_);
}
inline FieldIterator Container::end() noexcept { return FieldIterator(); }

/* ---- Data blocks ---------------------------------------------------------------- */

/* One reference to a data block, dropped in the destructor. */
class Datablock {
public:
    Datablock() noexcept = default;
    explicit Datablock(velClient_opaqueDatablock_pt h) noexcept : h_(h) {}
    ~Datablock() { reset(); }
    Datablock(Datablock &&o) noexcept : h_(std::exchange(o.h_, nullptr)) {}
    Datablock &operator=(Datablock &&o) noexcept
    {
        if (this != &o) {
            reset();
            h_ = std::exchange(o.h_, nullptr);
        }
        return *this;
    }
    Datablock(const Datablock &) = delete;
    Datablock &operator=(const Datablock &) = delete;

    static Datablock alloc(std::uint32_t size)
    {
        velClient_opaqueDatablock_pt h = nullptr;
        detail::check(velClient_datablock_alloc(&h, size));
        return Datablock(h);
    }
    /* A second reference to the same block. */
    Datablock share() const
    {
        detail::check(velClient_datablock_dup(h_));
        return Datablock(h_);
    }
    /* The data area and its capacity. */
    std::pair<std::uint8_t *, std::uint32_t> data() const
    {
        void *p = nullptr;
        velClient_uint32_t n = 0;
        detail::check(velClient_datablock_getDataPtr(h_, &p, &n));
        return {static_cast<std::uint8_t *>(p), n};
    }
    velClient_opaqueDatablock_pt handle() const noexcept { return h_; }
    velClient_opaqueDatablock_pt release() noexcept { return std::exchange(h_, nullptr); }
    void reset() noexcept
    {
        if (h_)
            velClient_datablock_free(&h_);
    }

private:
    velClient_opaqueDatablock_pt h_ = nullptr;
};

/* ---- Messages ---------------------------------------------------------------------- */

/* A message's encoded wire image: the bytes and the block that holds them. */
struct WireImage {
    Datablock block;
    const std::uint8_t *data = nullptr;
    std::size_t size = 0;
};

class Message {
public:
    Message() noexcept = default;
    explicit Message(velClient_opaqueMsg_pt h) noexcept : h_(h) {}
    ~Message() { reset(); }
    Message(Message &&o) noexcept : h_(std::exchange(o.h_, nullptr)) {}
    Message &operator=(Message &&o) noexcept
    {
        if (this != &o) {
            reset();
            h_ = std::exchange(o.h_, nullptr);
        }
        return *this;
    }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;

    static ReturnCode try_create(Message &out) noexcept
    {
        out.reset();
        return velClient_msg_alloc(&out.h_);
    }
    static Message create()
    {
        Message m;
        detail::check(try_create(m));
        return m;
    }
    /* A new message from bytes holding exactly one wire frame. */
    static ReturnCode try_from_wire(const void *data, std::size_t size, Message &out) noexcept
    {
        out.reset();
        velClient_bufInfo_t b{const_cast<void *>(data), static_cast<velClient_uint32_t>(size)};
        if (size > UINT32_MAX)
            b.bufSize = 0; /* refused by the decoder as a frame too short */
        return velClient_msg_decodeFromVwf(&b, &out.h_);
    }
    static Message from_wire(const void *data, std::size_t size)
    {
        Message m;
        detail::check(try_from_wire(data, size, m));
        return m;
    }
    static Message from_wire(const std::vector<std::uint8_t> &bytes) { return from_wire(bytes.data(), bytes.size()); }

    /* A second message sharing this one's data blocks. */
    Message dup() const
    {
        Message m;
        detail::check(velClient_msg_dup(h_, &m.h_));
        return m;
    }

    velClient_opaqueMsg_pt handle() const noexcept { return h_; }
    velClient_opaqueMsg_pt release() noexcept { return std::exchange(h_, nullptr); }
    explicit operator bool() const noexcept { return h_ != nullptr; }
    void reset() noexcept
    {
        if (h_)
            velClient_msg_free(&h_);
    }
    /* Empties the message for reuse (velClient_msg_reset). */
    void clear() { detail::check(velClient_msg_reset(h_)); }

    /* ---- wire image and dump ---- */
    ReturnCode try_encode(WireImage &out) noexcept
    {
        velClient_bufInfo_t b{};
        velClient_opaqueDatablock_pt blk = nullptr;
        ReturnCode rc = velClient_msg_encodeToVWF(h_, &b, &blk);
        out.block = Datablock(blk);
        out.data = static_cast<const std::uint8_t *>(b.buf_p);
        out.size = b.bufSize;
        return rc;
    }
    std::vector<std::uint8_t> to_wire()
    {
        WireImage w;
        detail::check(try_encode(w));
        return {w.data, w.data + w.size};
    }
    /* The message's text dump; flags VELCLIENT_MSGDUMP_FULL or _BRIEF. */
    std::string dump(std::uint32_t flags = VELCLIENT_MSGDUMP_FULL) const
    {
        for (std::size_t cap = 4096;; cap *= 2) {
            std::string s(cap, '\0');
            detail::check(velClient_msg_dumpExt(h_, s.data(), cap, flags));
            /* A cut dump fills the buffer to within 2 bytes of its end. */
            std::size_t n = std::strlen(s.c_str());
            if (n + 2 < cap) {
                s.resize(n);
                return s;
            }
        }
    }

    /* ---- destinations ---- */
    ReturnCode try_set_destination(const Destination &d) noexcept
    {
        velClient_destination_t c = d.c();
        return velClient_msg_setDestination(h_, &c, sizeof c);
    }
    void set_destination(const Destination &d) { detail::check(try_set_destination(d)); }
    void set_topic(std::string_view topic) { set_destination(Destination::topic(topic)); }
    void set_queue(std::string_view queue) { set_destination(Destination::queue(queue)); }
    std::optional<Destination> destination() const
    {
        velClient_destination_t d{};
        if (!detail::found(velClient_msg_getDestination(h_, &d, sizeof d)))
            return std::nullopt;
        return Destination::from_c(d);
    }
    void set_reply_to(const Destination &d)
    {
        velClient_destination_t c = d.c();
        detail::check(velClient_msg_setReplyTo(h_, &c, sizeof c));
    }
    std::optional<Destination> reply_to() const
    {
        velClient_destination_t d{};
        if (!detail::found(velClient_msg_getReplyTo(h_, &d, sizeof d)))
            return std::nullopt;
        return Destination::from_c(d);
    }
    void erase_reply_to() { detail::check(velClient_msg_deleteReplyTo(h_)); }

    /* ---- buffer parts (copied in; read back as views into the message) ---- */
    void set_attachment(const void *p, std::size_t n) { setPart(velClient_msg_setBinaryAttachment, p, n); }
    void set_attachment(std::string_view s) { set_attachment(s.data(), s.size()); }
    std::optional<Bytes> attachment() const { return getPart(velClient_msg_getBinaryAttachmentPtr); }
    void set_user_data(const void *p, std::size_t n) { setPart(velClient_msg_setUserData, p, n); }
    std::optional<Bytes> user_data() const { return getPart(velClient_msg_getUserDataPtr); }
    void set_xml(std::string_view s) { setPart(velClient_msg_setXml, s.data(), s.size()); }
    std::optional<Bytes> xml() const { return getPart(velClient_msg_getXmlPtr); }
    void set_correlation_tag(const void *p, std::size_t n) { setPart(velClient_msg_setCorrelationTag, p, n); }
    std::optional<Bytes> correlation_tag() const { return getPart(velClient_msg_getCorrelationTagPtr); }

    /* ---- header properties: text ---- */
    void set_correlation_id(std::string_view v) { setText(velClient_msg_setCorrelationId, v); }
    std::optional<std::string_view> correlation_id() const { return getText(velClient_msg_getCorrelationId); }
    void erase_correlation_id() { detail::check(velClient_msg_deleteCorrelationId(h_)); }
    void set_sender_id(std::string_view v) { setText(velClient_msg_setSenderId, v); }
    std::optional<std::string_view> sender_id() const { return getText(velClient_msg_getSenderId); }
    void erase_sender_id() { detail::check(velClient_msg_deleteSenderId(h_)); }
    void set_application_message_id(std::string_view v) { setText(velClient_msg_setApplicationMessageId, v); }
    std::optional<std::string_view> application_message_id() const
    {
        return getText(velClient_msg_getApplicationMessageId);
    }
    void erase_application_message_id() { detail::check(velClient_msg_deleteApplicationMessageId(h_)); }
    void set_application_msg_type(std::string_view v) { setText(velClient_msg_setApplicationMsgType, v); }
    std::optional<std::string_view> application_msg_type() const
    {
        return getText(velClient_msg_getApplicationMsgType);
    }
    void erase_application_msg_type() { detail::check(velClient_msg_deleteApplicationMsgType(h_)); }
    void set_http_content_type(std::string_view v) { setText(velClient_msg_setHttpContentType, v); }
    std::optional<std::string_view> http_content_type() const { return getText(velClient_msg_getHttpContentType); }
    void set_http_content_encoding(std::string_view v) { setText(velClient_msg_setHttpContentEncoding, v); }
    std::optional<std::string_view> http_content_encoding() const
    {
        return getText(velClient_msg_getHttpContentEncoding);
    }

    /* ---- header properties: numbers ---- */
    void set_sequence_number(std::int64_t v) { detail::check(velClient_msg_setSequenceNumber(h_, v)); }
    std::optional<std::int64_t> sequence_number() const { return getNumber(velClient_msg_getSequenceNumber); }
    void set_sender_timestamp(std::int64_t v) { detail::check(velClient_msg_setSenderTimestamp(h_, v)); }
    std::optional<std::int64_t> sender_timestamp() const { return getNumber(velClient_msg_getSenderTimestamp); }
    void set_time_to_live(std::int64_t v) { detail::check(velClient_msg_setTimeToLive(h_, v)); }
    std::optional<std::int64_t> time_to_live() const { return getNumber(velClient_msg_getTimeToLive); }
    void set_expiration(std::int64_t v) { detail::check(velClient_msg_setExpiration(h_, v)); }
    std::optional<std::int64_t> expiration() const { return getNumber(velClient_msg_getExpiration); }
    void set_delivery_mode(std::uint32_t v) { detail::check(velClient_msg_setDeliveryMode(h_, v)); }
    std::optional<std::uint32_t> delivery_mode() const { return getNumber(velClient_msg_getDeliveryMode); }
    void set_class_of_service(std::uint32_t v) { detail::check(velClient_msg_setClassOfService(h_, v)); }
    std::optional<std::uint32_t> class_of_service() const { return getNumber(velClient_msg_getClassOfService); }

    /* ---- header flags ---- */
    void set_deliver_to_one(bool v) { detail::check(velClient_msg_setDeliverToOne(h_, v)); }
    bool deliver_to_one() const noexcept { return velClient_msg_isDeliverToOne(h_) != 0; }
    void set_dmq_eligible(bool v) { detail::check(velClient_msg_setDMQEligible(h_, v)); }
    bool dmq_eligible() const noexcept { return velClient_msg_isDMQEligible(h_) != 0; }
    void set_eliding_eligible(bool v) { detail::check(velClient_msg_setElidingEligible(h_, v)); }
    bool eliding_eligible() const noexcept { return velClient_msg_isElidingEligible(h_) != 0; }
    void set_ack_immediately(bool v) { detail::check(velClient_msg_setAckImmediately(h_, v)); }
    bool ack_immediately() const noexcept { return velClient_msg_isAckImmediately(h_) != 0; }
    void set_discard_indication(bool v) { detail::check(velClient_msg_setDiscardIndication(h_, v)); }
    bool discard_indication() const noexcept { return velClient_msg_isDiscardIndication(h_) != 0; }
    void set_reply(bool v) { detail::check(velClient_msg_setAsReplyMsg(h_, v)); }
    bool is_reply() const noexcept { return velClient_msg_isReplyMsg(h_) != 0; }
    bool redelivered() const noexcept { return velClient_msg_isRedelivered(h_) != 0; }

    /* ---- structured attachment and user properties ---- */
    /* A map written straight into the message; size is a first guess, it grows. */
    Map create_attachment_map(std::uint32_t size = 256)
    {
        return inMessage<Map>(velClient_msg_createBinaryAttachmentMap, size);
    }
    Stream create_attachment_stream(std::uint32_t size = 256)
    {
        return inMessage<Stream>(velClient_msg_createBinaryAttachmentStream, size);
    }
    /* Copies the whole of c into the message as its attachment. */
    void set_attachment_container(const Container &c)
    {
        detail::check(velClient_msg_setBinaryAttachmentContainer(h_, c.handle()));
    }
    std::optional<Map> attachment_map() { return getContainer<Map>(velClient_msg_getBinaryAttachmentMap); }
    std::optional<Stream> attachment_stream() { return getContainer<Stream>(velClient_msg_getBinaryAttachmentStream); }
    Map create_user_properties(std::uint32_t size = 128)
    {
        return inMessage<Map>(velClient_msg_createUserPropertyMap, size);
    }
    void set_user_properties(const Map &m) { detail::check(velClient_msg_setUserPropertyMap(h_, m.handle())); }
    std::optional<Map> user_properties() { return getContainer<Map>(velClient_msg_getUserPropertyMap); }

private:
    template <class F> void setPart(F f, const void *p, std::size_t n)
    {
        if (n > UINT32_MAX)
            throw Error(VELCLIENT_FAIL, VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "buffer longer than 4 GB");
        detail::check(f(h_, p, static_cast<velClient_uint32_t>(n)));
    }
    template <class F> std::optional<Bytes> getPart(F f) const
    {
        void *p = nullptr;
        velClient_uint32_t n = 0;
        if (!detail::found(f(h_, &p, &n)))
            return std::nullopt;
        return Bytes{static_cast<const std::uint8_t *>(p), n};
    }
    template <class F> void setText(F f, std::string_view v)
    {
        detail::CStr s(v);
        detail::check(f(h_, s));
    }
    template <class F> std::optional<std::string_view> getText(F f) const
    {
        const char *s = nullptr;
        if (!detail::found(f(h_, &s)))
            return std::nullopt;
        return detail::view(s);
    }
    template <class T> static T numberType(ReturnCode (*)(velClient_opaqueMsg_pt, T *));
    template <class F> auto getNumber(F f) const -> std::optional<decltype(numberType(f))>
    {
        decltype(numberType(f)) v{};
        if (!detail::found(f(h_, &v)))
            return std::nullopt;
        return v;
    }
    /* A container made in this message by f(msg, &handle, size). */
    template <class C, class F> C inMessage(F f, std::uint32_t size)
    {
        return detail::made<C>([this, f](Container::Handle *h, std::uint32_t n) { return f(h_, h, n); }, size);
    }
    template <class C, class F> std::optional<C> getContainer(F f)
    {
        velClient_opaqueContainer_pt h = nullptr;
        if (!detail::found(f(h_, &h)))
            return std::nullopt;
        return C(h);
    }

    velClient_opaqueMsg_pt h_ = nullptr;
};

/* ---- Sessions ---------------------------------------------------------------------- */

/* What a broker session tells its event callback. */
struct SessionEvent {
    velClient_session_event_t event;
    std::int32_t response_code;
    std::string info;
    void *correlation; /* the tag of the message concerned, or nullptr */
    std::string name() const { return velClient_session_eventToString(event); }
};

/* A session; its callback gets each received message and may keep it by moving it out.
 * On a broker session the callbacks run on the session's I/O thread; an exception one of them throws
 * comes out of the next send on this object. */
class Session {
public:
    using Callback = std::function<void(Message &)>;
    using EventCallback = std::function<void(const SessionEvent &)>;
    using Properties = std::initializer_list<std::pair<const char *, const char *>>;

    Session(Properties props, Callback callback) : state_(new State{std::move(callback), {}, {}, nullptr})
    {
        std::vector<const char *> list;
        for (const auto &p : props) {
            list.push_back(p.first);
            list.push_back(p.second);
        }
        list.push_back(nullptr);
        detail::check(velClient_session_create(list.data(), &Session::onMessage, state_.get(), &h_));
    }
    ~Session()
    {
        if (h_)
            velClient_session_destroy(&h_);
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    velClient_opaqueSession_pt handle() const noexcept { return h_; }
    ReturnCode try_send(const Message &m) noexcept { return velClient_session_sendMsg(h_, m.handle()); }
    /* Sends m; an exception a callback threw (on a loopback delivery, or earlier on the I/O thread) comes out
     * here. VELCLIENT_WOULD_BLOCK is returned, not thrown. */
    ReturnCode send(const Message &m)
    {
        ReturnCode rc = detail::check(try_send(m));
        std::exception_ptr e;
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            e = std::exchange(state_->pending, nullptr);
        }
        if (e)
            std::rethrow_exception(e);
        return rc;
    }

    void connect() { detail::check(velClient_session_connect(h_)); }
    void disconnect() { detail::check(velClient_session_disconnect(h_)); }
    void subscribe_topic(std::string_view topic)
    {
        detail::check(velClient_session_topicSubscribe(h_, detail::CStr(topic)));
    }
    void unsubscribe_topic(std::string_view topic)
    {
        detail::check(velClient_session_topicUnsubscribe(h_, detail::CStr(topic)));
    }
    void subscribe_queue(std::string_view queue)
    {
        detail::check(velClient_session_queueSubscribe(h_, detail::CStr(queue)));
    }
    void unsubscribe_queue(std::string_view queue)
    {
        detail::check(velClient_session_queueUnsubscribe(h_, detail::CStr(queue)));
    }
    /* Accepts a queue message received with client acknowledgement. */
    void ack(const Message &m)
    {
        velClient_msgId_t id = 0;
        detail::check(velClient_msg_getMsgId(m.handle(), &id));
        detail::check(velClient_session_ack(h_, id));
    }
    /* Replaces the event callback (an empty one stops the events). */
    void on_event(EventCallback callback)
    {
        {
            std::lock_guard<std::mutex> lock(state_->mutex);
            state_->events = std::move(callback);
        }
        detail::check(velClient_session_setEventCallback(h_, &Session::onEvent, state_.get()));
    }

private:
    struct State {
        Callback callback;
        EventCallback events;
        std::mutex mutex; /* events and pending, which the I/O thread and the application share */
        std::exception_ptr pending;
        void keep(std::exception_ptr e)
        {
            std::lock_guard<std::mutex> lock(mutex);
            pending = std::move(e);
        }
    };

    static velClient_rxMsgCallback_returnCode_t onMessage(velClient_opaqueSession_pt, velClient_opaqueMsg_pt msg,
                                                          void *user) noexcept
    {
        State *s = static_cast<State *>(user);
        Message m(msg);
        try {
            if (s->callback)
                s->callback(m);
        } catch (...) {
            s->keep(std::current_exception());
        }
        /* A message the callback moved out is the application's now. */
        bool kept = !m;
        m.release();
        return kept ? VELCLIENT_CALLBACK_TAKE_MSG : VELCLIENT_CALLBACK_OK;
    }

    static void onEvent(velClient_opaqueSession_pt, velClient_session_eventCallbackInfo_pt info, void *user) noexcept
    {
        State *s = static_cast<State *>(user);
        try {
            EventCallback events;
            {
                std::lock_guard<std::mutex> lock(s->mutex);
                events = s->events;
            }
            if (events)
                events(SessionEvent{info->event, info->responseCode, std::string(detail::view(info->info_p)),
                                    info->correlation_p});
        } catch (...) {
            s->keep(std::current_exception());
        }
    }

    std::unique_ptr<State> state_;
    velClient_opaqueSession_pt h_ = nullptr;
};

} // namespace velclient

#undef VELCLIENT_HPP_SCALARS

#endif /* VELCLIENT_HPP */
