/* The typed getters' conversion rules, walked from tables: each stored value
 * is read by every integer getter, and the result is checked against the
 * range the rule gives (value copied) or the exact conversion error; then
 * the conversions from texts, floats and other types, one row each. */
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "support/velTestSupport.h"

namespace {

using Add = std::function<velClient_returnCode_t(velClient_opaqueContainer_pt)>;

/* A one-entry map holding the value under "v", in its own memory. */
struct OneField : veltest::Container {
    explicit OneField(const Add &add) { EXPECT_EQ(VELCLIENT_OK, add(h)); }
};

__extension__ typedef __int128 wide;

constexpr wide kI64Min = std::numeric_limits<std::int64_t>::min();
constexpr wide kI64Max = std::numeric_limits<std::int64_t>::max();
constexpr wide kU64Max = std::numeric_limits<std::uint64_t>::max();

/* A stored integer type: its name in conversion errors, its range, its add. */
struct StoredType {
    const char *typeName;
    wide lo, hi;
    std::function<Add(wide)> make;
};

#define STORED(T, fn) [](wide v) -> Add { return [v](auto c) { return velClient_container_add##fn(c, T(v), "v"); }; }

const StoredType kStoredTypes[] = {
    {"BOOLEAN", 0, 1, STORED(velClient_bool_t, Boolean)},
    {"Unsigned Int (8 bit)", 0, 255, STORED(velClient_uint8_t, Uint8)},
    {"Signed Int (8 bit)", -128, 127, STORED(velClient_int8_t, Int8)},
    {"Unsigned Int (16 bit)", 0, 65535, STORED(velClient_uint16_t, Uint16)},
    {"Signed Int (16 bit)", -32768, 32767, STORED(velClient_int16_t, Int16)},
    {"Unsigned Int (32 bit)", 0, 4294967295, STORED(velClient_uint32_t, Uint32)},
    {"Signed Int (32 bit)", -2147483648LL, 2147483647, STORED(velClient_int32_t, Int32)},
    {"Unsigned Int (64 bit)", 0, kU64Max, STORED(velClient_uint64_t, Uint64)},
    {"Signed Int (64 bit)", kI64Min, kI64Max, STORED(velClient_int64_t, Int64)},
};

/* Every value probed fits in an int64_t or a uint64_t. */
std::string str(wide v)
{
    return v < 0 ? std::to_string(static_cast<long long>(v)) : std::to_string(static_cast<unsigned long long>(v));
}

/* A getter's result as text: the value read, or "FAIL " and the error text. */
template <typename T>
std::string shown(velClient_returnCode_t rc, T v)
{
    if (rc != VELCLIENT_OK)
        return (rc == VELCLIENT_FAIL ? "FAIL " : "rc ") + veltest::lastErrorText();
    if constexpr (std::is_floating_point_v<T>)
        return veltest::format("%g", static_cast<double>(v));
    else
        return str(+v);
}

#define GET(T, fn)                                                                                                 \
    [](velClient_opaqueContainer_pt h) {                                                                           \
        T v{};                                                                                                     \
        const velClient_returnCode_t rc = velClient_container_get##fn(h, &v, "v");                                 \
        return shown(rc, v);                                                                                       \
    }

/* Accepted range per requested type, by stored type (BOOL .. INT64); A is any value. */
struct Rule {
    const char *words;
    wide accept[9][2];
    std::function<std::string(velClient_opaqueContainer_pt)> get;
};

#define A {kI64Min, kU64Max}

const Rule kRules[] = {
    {"8 bit unsigned integer", {A, A, {1, 127}, {0, 255}, {1, 255}, {0, 255}, {1, 255}, {0, 255}, {1, 255}},
     GET(velClient_uint8_t, Uint8)},
    {"8 bit signed integer", {A, {0, 127}, A, {0, 127}, {-128, 127}, {0, 127}, {-128, 127}, {0, 127}, {-128, 127}},
     GET(velClient_int8_t, Int8)},
    {"16 bit unsigned integer", {A, A, {1, 127}, A, {0, 32767}, {0, 65535}, {0, 65535}, {0, 65535}, {0, 65535}},
     GET(velClient_uint16_t, Uint16)},
    {"16 bit signed integer", {A, A, A, {0, 32767}, A, {0, 32767}, {-32768, 32767}, {0, 32767}, {-32768, 32767}},
     GET(velClient_int16_t, Int16)},
    {"32 bit unsigned integer", {A, A, {0, 127}, A, {0, 32767}, A, {0, 2147483647}, {0, 4294967295}, {0, 4294967295}},
     GET(velClient_uint32_t, Uint32)},
    {"32 bit signed integer", {A, A, A, A, A, {0, 2147483647}, A, {0, 2147483647}, {-2147483648LL, 2147483647}},
     GET(velClient_int32_t, Int32)},
    {"64 bit unsigned integer", {A, A, {0, 127}, A, {0, 32767}, A, {0, 2147483647}, A, {0, kI64Max}},
     GET(velClient_uint64_t, Uint64)},
    {"64 bit signed integer", {A, A, A, A, A, A, A, {0, kI64Max}, A}, GET(velClient_int64_t, Int64)},
};
#undef A

/* The values probed: each type's limits, 0, +-1, and each side of every rule's limits. */
const wide kProbes[] = {0, 1, -1, 127, 128, 255, 256, 32767, 32768, 65535, 65536, 2147483647, 2147483648LL,
                        4294967295, 4294967296LL, kI64Max, kI64Min, kU64Max, -128, -129, -32768, -32769,
                        -2147483648LL, -2147483649LL};

#define ADD(call) [](velClient_opaqueContainer_pt h) { return velClient_container_##call; }
} // namespace

TEST(Conversions, EveryIntegerRuleOverEveryStoredIntegerType)
{
    for (std::size_t ti = 0; ti < 9; ++ti) {
        const StoredType &t = kStoredTypes[ti];
        for (wide v : kProbes) {
            if (v < t.lo || v > t.hi)
                continue;
            OneField f(t.make(v));
            for (const Rule &r : kRules) {
                const std::string got = r.get(f.h), what = std::string(r.words) + " from " + t.typeName + " " + str(v);
                if (v >= r.accept[ti][0] && v <= r.accept[ti][1]) {
                    EXPECT_EQ(str(v), got) << what; /* the value copied */
                } else {
                    EXPECT_EQ(std::string("FAIL Field Type ") + t.typeName + " could not be converted to " + r.words,
                              got);
                    EXPECT_EQ(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION, veltest::lastSubCode()) << what;
                }
            }
        }
    }
}

TEST(Conversions, TextsFloatsTheDeliberateAsymmetriesAndCopiesIntoTheCallersBuffers)
{
    const std::string no = "FAIL Field Type ", toU8 = no + "String could not be converted to 8 bit unsigned integer";
    const struct {
        Add add;
        std::function<std::string(velClient_opaqueContainer_pt)> get;
        std::string expected;
    } rows[] = {
        {ADD(addUint8(h, 200, "v")), GET(char, Char), no + "Unsigned Int (8 bit) could not be converted to char"},
        {ADD(addWchar(h, 200, "v")), GET(char, Char), "-56"},
        {ADD(addFloat(h, 1.5f, "v")), GET(double, Double), no + "Float could not be converted to double"},
        {ADD(addFloat(h, 1.5f, "v")), GET(float, Float), "1.5"},
        {ADD(addDouble(h, 2.5, "v")), GET(float, Float), no + "Double could not be converted to Float"},
        /* Texts are parsed as numbers with a base prefix, to the getter's range. */
        {ADD(addString(h, "0x1F", "v")), GET(velClient_uint8_t, Uint8), "31"},
        {ADD(addString(h, "", "v")), GET(velClient_uint8_t, Uint8), "0"},
        {ADD(addString(h, "4294967297", "v")), GET(velClient_uint8_t, Uint8), "1"},
        {ADD(addString(h, "12abc", "v")), GET(velClient_uint8_t, Uint8), toU8},
        {ADD(addString(h, "256", "v")), GET(velClient_uint8_t, Uint8), toU8},
        {ADD(addString(h, "-1", "v")), GET(velClient_uint8_t, Uint8), toU8},
        {ADD(addString(h, "3000000000", "v")), GET(velClient_uint32_t, Uint32),
         no + "String could not be converted to 32 bit unsigned integer"},
        {ADD(addString(h, "3000000000", "v")), GET(velClient_int32_t, Int32), "-1294967296"}, /* low 32 bits, no range test */
        {ADD(addString(h, "TRUE", "v")), GET(velClient_bool_t, Boolean), "1"},
        {ADD(addString(h, "1", "v")), GET(velClient_bool_t, Boolean), "1"},
        {ADD(addString(h, "yes", "v")), GET(velClient_bool_t, Boolean), no + "String could not be converted to boolean"},
        {ADD(addString(h, "2.5e3", "v")), GET(double, Double), "2500"},
        {ADD(addString(h, "\xE9", "v")), GET(velClient_wchar_t, Wchar), "4294967273"}, /* sign-extended */
        {ADD(addDouble(h, -0.0, "v")), GET(velClient_bool_t, Boolean), "0"},
        {ADD(addFloat(h, std::nanf(""), "v")), GET(velClient_bool_t, Boolean), "1"},
        {ADD(addUint64(h, 1ull << 40, "v")), GET(velClient_bool_t, Boolean), "1"},
        {[](velClient_opaqueContainer_pt h) {
             velClient_destination_t d{VELCLIENT_TOPIC_DESTINATION, "t"};
             return velClient_container_addDestination(h, &d, sizeof d, "v");
         }, GET(velClient_bool_t, Boolean), no + "Destination could not be converted to boolean"},
    };
    for (const auto &row : rows) {
        OneField f(row.add);
        EXPECT_EQ(row.expected, row.get(f.h)) << "row " << (&row - rows);
    }
    /* Copies into the caller's buffers. */
    const std::uint8_t ten[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    std::uint8_t out[10] = {};
    velClient_uint32_t len = sizeof out;
    OneField arr([&](auto h) { return velClient_container_addByteArray(h, ten, 10, "v"); });
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getByteArray(arr.h, out, &len, "v"));
    EXPECT_EQ(10u, len);
    EXPECT_EQ(0, std::memcmp(ten, out, 10));
    OneField vwf([&](auto h) { return velClient_container_addVwf(h, ten, 10, "v"); });
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getVwf(vwf.h, out, &len, "v")); /* an exact fit fails for VWF */
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION, "Field Type VWF could not be copied to byte vwf");
    EXPECT_EQ(0, std::memcmp(ten, out, 10)); /* after copying the capacity */
    EXPECT_EQ(10u, len);
    char text[4];
    OneField s([](auto h) { return velClient_container_addString(h, "abcde", "v"); });
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getString(s.h, text, sizeof text, "v"));
    EXPECT_STREQ("abc", text);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getString(s.h, text, 0, "v"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_OUT_OF_RANGE, "Bad string length of 0 in velClient_container_getString");
    const velClient_uint8_t *p = nullptr;
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getByteArrayPtr(s.h, &p, &len, "v"));
    EXPECT_EQ(6u, len); /* a string's bytes with its NUL */
    OneField null([](auto h) { return velClient_container_addNull(h, "v"); });
    const char *sp = "x";
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getStringPtr(null.h, &sp, "v"));
    EXPECT_EQ(nullptr, sp);
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getString(null.h, text, sizeof text, "v"));
}

