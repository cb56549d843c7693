/* The typed getters' conversion rules, walked from tables: each stored value
 * is read by every integer getter, and the result is checked against the
 * range the rule gives (value copied) or the exact conversion error. */
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "support/velTestSupport.h"

namespace {

/* A one-entry map holding the value under "v", in its own memory. */
struct OneField {
    std::vector<char> mem = std::vector<char>(512);
    velClient_opaqueContainer_pt h = nullptr;
    explicit OneField(const std::function<velClient_returnCode_t(velClient_opaqueContainer_pt)> &add)
    {
        EXPECT_EQ(VELCLIENT_OK, velClient_container_createMap(&h, mem.data(), mem.size()));
        EXPECT_EQ(VELCLIENT_OK, add(h));
    }
    ~OneField() { velClient_container_closeMapStream(&h); }
};

__extension__ typedef __int128 wide;
__extension__ typedef unsigned __int128 uwide;

struct Stored {
    const char *typeName; /* as conversion errors name it */
    wide value;
    std::function<velClient_returnCode_t(velClient_opaqueContainer_pt)> add;
};

#define STORED(T, fn, name)                                                                                        \
    [](wide v) {                                                                                                   \
        return Stored{name, v, [v](velClient_opaqueContainer_pt c) {                                               \
                          return velClient_container_add##fn(c, static_cast<T>(v), "v");                           \
                      }};                                                                                          \
    }

using Maker = std::function<Stored(wide)>;

struct StoredType {
    Maker make;
    wide lo, hi; /* the stored type's own range */
};

constexpr wide kI64Min = std::numeric_limits<std::int64_t>::min();
constexpr wide kI64Max = std::numeric_limits<std::int64_t>::max();
constexpr wide kU64Max = std::numeric_limits<std::uint64_t>::max();

const StoredType kStoredTypes[] = {
    {STORED(velClient_bool_t, Boolean, "BOOLEAN"), 0, 1},
    {STORED(velClient_uint8_t, Uint8, "Unsigned Int (8 bit)"), 0, 255},
    {STORED(velClient_int8_t, Int8, "Signed Int (8 bit)"), -128, 127},
    {STORED(velClient_uint16_t, Uint16, "Unsigned Int (16 bit)"), 0, 65535},
    {STORED(velClient_int16_t, Int16, "Signed Int (16 bit)"), -32768, 32767},
    {STORED(velClient_uint32_t, Uint32, "Unsigned Int (32 bit)"), 0, 4294967295},
    {STORED(velClient_int32_t, Int32, "Signed Int (32 bit)"), -2147483648LL, 2147483647},
    {STORED(velClient_uint64_t, Uint64, "Unsigned Int (64 bit)"), 0, kU64Max},
    {STORED(velClient_int64_t, Int64, "Signed Int (64 bit)"), kI64Min, kI64Max},
};

/* Accepted range per requested type, by stored type (BOOL .. INT64). */
struct Rule {
    const char *getter;
    const char *words;
    wide accept[9][2];
    std::function<velClient_returnCode_t(velClient_opaqueContainer_pt, wide &)> get;
};

#define GETTER(T, fn)                                                                                              \
    [](velClient_opaqueContainer_pt c, wide &out) {                                                                \
        T v{};                                                                                                     \
        velClient_returnCode_t rc = velClient_container_get##fn(c, &v, "v");                                       \
        out = v;                                                                                                   \
        return rc;                                                                                                 \
    }

constexpr wide ANY_LO = kI64Min, ANY_HI = kU64Max;

const Rule kRules[] = {
    {"getUint8", "8 bit unsigned integer",
     {{ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {1, 127}, {0, 255}, {1, 255}, {0, 255}, {1, 255}, {0, 255}, {1, 255}},
     GETTER(velClient_uint8_t, Uint8)},
    {"getInt8", "8 bit signed integer",
     {{ANY_LO, ANY_HI}, {0, 127}, {ANY_LO, ANY_HI}, {0, 127}, {-128, 127}, {0, 127}, {-128, 127}, {0, 127}, {-128, 127}},
     GETTER(velClient_int8_t, Int8)},
    {"getUint16", "16 bit unsigned integer",
     {{ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {1, 127}, {ANY_LO, ANY_HI}, {0, 32767}, {0, 65535}, {0, 65535}, {0, 65535},
      {0, 65535}},
     GETTER(velClient_uint16_t, Uint16)},
    {"getInt16", "16 bit signed integer",
     {{ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {0, 32767}, {ANY_LO, ANY_HI}, {0, 32767}, {-32768, 32767},
      {0, 32767}, {-32768, 32767}},
     GETTER(velClient_int16_t, Int16)},
    {"getUint32", "32 bit unsigned integer",
     {{ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {0, 127}, {ANY_LO, ANY_HI}, {0, 32767}, {ANY_LO, ANY_HI}, {0, 2147483647},
      {0, 4294967295}, {0, 4294967295}},
     GETTER(velClient_uint32_t, Uint32)},
    {"getInt32", "32 bit signed integer",
     {{ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {0, 2147483647},
      {ANY_LO, ANY_HI}, {0, 2147483647}, {-2147483648LL, 2147483647}},
     GETTER(velClient_int32_t, Int32)},
    {"getUint64", "64 bit unsigned integer",
     {{ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {0, 127}, {ANY_LO, ANY_HI}, {0, 32767}, {ANY_LO, ANY_HI}, {0, 2147483647},
      {ANY_LO, ANY_HI}, {0, kI64Max}},
     GETTER(velClient_uint64_t, Uint64)},
    {"getInt64", "64 bit signed integer",
     {{ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {ANY_LO, ANY_HI}, {ANY_LO, ANY_HI},
      {ANY_LO, ANY_HI}, {0, kI64Max}, {ANY_LO, ANY_HI}},
     GETTER(velClient_int64_t, Int64)},
};

/* The interesting values of a stored type: its limits, 0, +-1, and each side of every rule's limits. */
std::vector<wide> probes(const StoredType &t)
{
    std::vector<wide> values = {t.lo, t.hi, 0, 1, -1, 127, 128, 255, 256, 32767, 32768, 65535, 65536,
                                2147483647, 2147483648LL, 4294967295, 4294967296LL, kI64Max, -128, -129,
                                -32768, -32769, -2147483648LL, -2147483649LL};
    std::vector<wide> inside;
    for (wide v : values)
        if (v >= t.lo && v <= t.hi)
            inside.push_back(v);
    return inside;
}

std::string str(wide v)
{
    bool neg = v < 0;
    uwide u = neg ? static_cast<uwide>(-v) : static_cast<uwide>(v);
    std::string s;
    do {
        s.insert(s.begin(), static_cast<char>('0' + static_cast<int>(u % 10)));
        u /= 10;
    } while (u != 0);
    return neg ? "-" + s : s;
}

} // namespace

TEST(Conversions, EveryIntegerRuleOverEveryStoredIntegerType)
{
    int checked = 0;
    for (std::size_t ti = 0; ti < 9; ++ti) {
        const StoredType &t = kStoredTypes[ti];
        for (wide v : probes(t)) {
            Stored s = t.make(v);
            OneField f(s.add);
            for (const Rule &r : kRules) {
                wide out = 0;
                velClient_returnCode_t rc = r.get(f.h, out);
                wide lo = r.accept[ti][0], hi = r.accept[ti][1];
                std::string what = std::string(r.getter) + " of " + s.typeName + " " + str(v);
                if (v >= lo && v <= hi) {
                    EXPECT_EQ(VELCLIENT_OK, rc) << what;
                    /* Signed results compare as the value; unsigned ones as its bits. */
                    EXPECT_TRUE(out == v || out == static_cast<wide>(static_cast<std::uint64_t>(v)) ||
                                (ti == 0 && out == (v != 0)))
                        << what << " gave " << str(out);
                } else {
                    EXPECT_EQ(VELCLIENT_FAIL, rc) << what;
                    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION,
                                      std::string("Field Type ") + s.typeName + " could not be converted to " + r.words);
                }
                ++checked;
            }
        }
    }
    EXPECT_GT(checked, 600);
}

TEST(Conversions, TheDeliberateAsymmetries)
{
    /* (Signed zero read as unsigned, int16 -> uint8 and int8 -> uint16/32, is in the walk above.) */
    char c = 0;
    {
        OneField f([](auto h) { return velClient_container_addUint8(h, 200, "v"); });
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getChar(f.h, &c, "v"));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION,
                          "Field Type Unsigned Int (8 bit) could not be converted to char");
    }
    {
        OneField f([](auto h) { return velClient_container_addWchar(h, 200, "v"); });
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getChar(f.h, &c, "v"));
        EXPECT_EQ(200, static_cast<unsigned char>(c));
    }
    float fl = 0;
    double d = 0;
    {
        OneField f([](auto h) { return velClient_container_addFloat(h, 1.5f, "v"); });
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getDouble(f.h, &d, "v"));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION, "Field Type Float could not be converted to double");
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getFloat(f.h, &fl, "v"));
        EXPECT_EQ(1.5f, fl);
    }
    {
        OneField f([](auto h) { return velClient_container_addDouble(h, 2.5, "v"); });
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getFloat(f.h, &fl, "v"));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION, "Field Type Double could not be converted to Float");
    }
}

TEST(Conversions, StringsParsedForNumbersAndBooleans)
{
    struct Case {
        const char *text;
        bool u8ok;
        velClient_uint8_t u8;
    } cases[] = {{"0x1F", true, 31}, {"12abc", false, 0}, {"", true, 0}, {"4294967297", true, 1},
                 {" 7", true, 7},    {"010", true, 8},    {"256", false, 0}, {"-1", false, 0}};
    for (const Case &k : cases) {
        OneField f([&k](auto h) { return velClient_container_addString(h, k.text, "v"); });
        velClient_uint8_t u8 = 99;
        EXPECT_EQ(k.u8ok ? VELCLIENT_OK : VELCLIENT_FAIL, velClient_container_getUint8(f.h, &u8, "v")) << k.text;
        if (k.u8ok)
            EXPECT_EQ(k.u8, u8) << k.text;
        else
            EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION,
                              "Field Type String could not be converted to 8 bit unsigned integer");
    }
    {
        OneField f([](auto h) { return velClient_container_addString(h, "3000000000", "v"); });
        velClient_uint32_t u32 = 0;
        velClient_uint64_t u64 = 0;
        velClient_int32_t i32 = 0;
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getUint32(f.h, &u32, "v"));
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getUint64(f.h, &u64, "v"));
        EXPECT_EQ(3000000000u, u64);
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(f.h, &i32, "v")); /* low 32 bits, no range test */
        EXPECT_EQ(static_cast<velClient_int32_t>(3000000000u), i32);
    }
    velClient_bool_t b = 7;
    for (const char *yes : {"TRUE", "True", "1"}) {
        OneField f([yes](auto h) { return velClient_container_addString(h, yes, "v"); });
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getBoolean(f.h, &b, "v"));
        EXPECT_EQ(1, b);
    }
    {
        OneField f([](auto h) { return velClient_container_addString(h, "yes", "v"); });
        EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getBoolean(f.h, &b, "v"));
        EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION, "Field Type String could not be converted to boolean");
    }
    double d = 0;
    {
        OneField f([](auto h) { return velClient_container_addString(h, "2.5e3", "v"); });
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getDouble(f.h, &d, "v"));
        EXPECT_EQ(2500.0, d);
    }
    velClient_wchar_t w = 0;
    {
        OneField f([](auto h) { return velClient_container_addString(h, "\xE9", "v"); });
        EXPECT_EQ(VELCLIENT_OK, velClient_container_getWchar(f.h, &w, "v"));
        EXPECT_EQ(0xFFFFFFE9u, w); /* sign-extended */
    }
}

TEST(Conversions, BooleansFromNumbersAndFloats)
{
    velClient_bool_t b = 7;
    OneField negZero([](auto h) { return velClient_container_addDouble(h, -0.0, "v"); });
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getBoolean(negZero.h, &b, "v"));
    EXPECT_EQ(0, b);
    OneField nan([](auto h) { return velClient_container_addFloat(h, std::nanf(""), "v"); });
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getBoolean(nan.h, &b, "v"));
    EXPECT_EQ(1, b);
    OneField big([](auto h) { return velClient_container_addUint64(h, 1ull << 40, "v"); });
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getBoolean(big.h, &b, "v"));
    EXPECT_EQ(1, b);
    OneField dest([](auto h) {
        velClient_destination_t d{VELCLIENT_TOPIC_DESTINATION, "t"};
        return velClient_container_addDestination(h, &d, sizeof d, "v");
    });
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getBoolean(dest.h, &b, "v"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_INVALID_DATA_CONVERSION, "Field Type Destination could not be converted to boolean");
}

TEST(Conversions, CopiesIntoTheCallersBuffers)
{
    std::uint8_t ten[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    std::uint8_t out[10] = {};
    velClient_uint32_t len = sizeof out;
    OneField arr([&](auto h) { return velClient_container_addByteArray(h, ten, 10, "v"); });
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getByteArray(arr.h, out, &len, "v"));
    EXPECT_EQ(10u, len);
    EXPECT_EQ(0, std::memcmp(ten, out, 10));
    OneField vwf([&](auto h) { return velClient_container_addVwf(h, ten, 10, "v"); });
    std::memset(out, 0, sizeof out);
    len = sizeof out;
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

TEST(Conversions, StreamsConsumeAFieldEvenWhenItsConversionFails)
{
    std::vector<char> mem(64);
    velClient_opaqueContainer_pt s = nullptr;
    ASSERT_EQ(VELCLIENT_OK, velClient_container_createStream(&s, mem.data(), mem.size()));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addString(s, "not a number", nullptr));
    ASSERT_EQ(VELCLIENT_OK, velClient_container_addInt32(s, 5, nullptr));
    velClient_int32_t v = 0;
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getInt32(s, &v, nullptr));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getInt32(s, &v, nullptr));
    EXPECT_EQ(5, v);
    EXPECT_EQ(VELCLIENT_EOS, velClient_container_getInt32(s, &v, nullptr));
    EXPECT_EQ(VELCLIENT_FAIL, velClient_container_getInt32(s, &v, "named"));
    EXPECT_LAST_ERROR(VELCLIENT_SUBCODE_PARAM_CONFLICT,
                      "Stream with non-NULL name pointer in velClient_container_getInt32");
    ASSERT_EQ(VELCLIENT_OK, velClient_container_rewind(s));
    EXPECT_EQ(VELCLIENT_OK, velClient_container_getNull(s, nullptr)); /* any field counts */
    velClient_container_closeMapStream(&s);
}
