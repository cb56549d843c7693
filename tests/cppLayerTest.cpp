/* The C++ layer: typed adds and getters through the conversion rules, fields
 * as variants, owners that give back what they hold, errors as exceptions
 * and as codes, sessions. */
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "support/velTestSupport.h"
#include "velclient/velClient.hpp"

namespace vc = velclient;

namespace {

using Live = veltest::LiveCounts;

/* A value as gtest compares it: bytes and containers as their bytes, text as a string. */
template <class T> auto canon(const T &v)
{
    if constexpr (std::is_base_of_v<vc::Bytes, T>)
        return v.to_vector();
    else if constexpr (std::is_base_of_v<vc::Container, T>)
        return v.bytes().to_vector();
    else if constexpr (std::is_convertible_v<const T &, std::string_view>)
        return std::string(v);
    else
        return v;
}
template <class T> using Canon = decltype(canon(std::declval<const T &>()));

/* One field type of the layer: the value added, the C++ type it is read back
 * as (get, next) with the value that must come back, and
 * the variant alternative iteration must give with its value. */
template <class AddedT, class ReadT, class AltT> struct Row {
    using Read = ReadT;
    using Alt = AltT;
    const char *name;
    AddedT added;
    Canon<ReadT> read;
    Canon<AltT> alt;
};
template <class Read, class Alt = Read, class Added>
Row<Added, Read, Alt> row(const char *name, Added added, Canon<Read> read, Canon<Alt> alt)
{
    return {name, std::move(added), std::move(read), std::move(alt)};
}
/* A value that reads back as it went in, as its own type. */
template <class T> Row<T, T, T> same(const char *name, T value)
{
    Canon<T> c = canon(value);
    return {name, std::move(value), c, c};
}

/* Adds every row to c (a map by name, a stream in order), reads each back with
 * the typed getters and then by iteration, and checks what comes back. */
template <class C, class Rows> void addAndReadBack(C &c, const Rows &rows)
{
    constexpr bool isMap = std::is_same_v<C, vc::Map>;
    auto each = [&rows](auto &&f) { std::apply([&f](const auto &...r) { (f(r), ...); }, rows); };
    each([&c](const auto &r) { static_cast<vc::Container &>(c).add(r.added, isMap ? r.name : nullptr); });

    c.rewind();
    each([&c](const auto &r) {
        using Read = typename std::decay_t<decltype(r)>::Read;
        if constexpr (!std::is_same_v<Read, vc::Unknown>) { /* no typed getter: iteration only */
            std::optional<Read> got;
            if constexpr (isMap)
                got = c.template get<Read>(r.name);
            else
                got = c.template next<Read>();
            ASSERT_TRUE(got.has_value()) << r.name;
            EXPECT_EQ(r.read, canon(*got)) << r.name;
        }
    });

    std::vector<vc::Field> fields;
    for (vc::Field &f : c)
        fields.push_back(std::move(f));
    ASSERT_EQ(std::tuple_size_v<Rows>, fields.size());
    auto field = fields.begin();
    each([&field](const auto &r) {
        using Alt = typename std::decay_t<decltype(r)>::Alt;
        const vc::Field &f = *field++;
        EXPECT_EQ(std::string_view(isMap ? r.name : ""), f.name);
        const Alt *value = std::get_if<Alt>(&f.value);
        ASSERT_NE(nullptr, value) << r.name << " came back as alternative " << f.value.index();
        EXPECT_EQ(r.alt, canon(*value)) << r.name;
    });
}

} // namespace

TEST(CppLayer, EveryFieldTypeReadsBackAsAddedInAMapAndAStream)
{
    Live live;
    {
        const std::uint8_t raw[] = {0, 1, 0xFE, 0xFF};
        /* A boolean's type byte with a 2-byte length: no type this build knows. */
        const std::uint8_t unknownField[] = {0x05, 0x00, 0x04, 0x01};
        vc::Message msg = vc::Message::create();
        msg.set_topic("nested/vwf");
        const std::vector<std::uint8_t> wire = msg.to_wire();
        char innerMapMem[64], innerStreamMem[64];
        vc::Map innerMap = vc::Map::create_in(innerMapMem, sizeof innerMapMem);
        innerMap.add(std::int32_t{7}, "seven");
        vc::Stream innerStream = vc::Stream::create_in(innerStreamMem, sizeof innerStreamMem);
        innerStream.add("one");
        innerStream.add(2.0);

        const auto rows = std::make_tuple(
            same("bool", true), same("u8", std::uint8_t{200}), same("i8", std::int8_t{-100}),
            same("u16", std::uint16_t{60000}), same("i16", std::int16_t{-30000}),
            same("u32", std::uint32_t{4000000000u}), same("i32", std::int32_t{-2000000000}),
            same("u64", std::uint64_t{18000000000000000000u}), same("i64", std::int64_t{-(std::int64_t{1} << 40)}),
            row<long long, std::int64_t>("long long", -7LL, -7LL, -7),
            row<char, vc::Wchar>("char", 'x', 'x', vc::Wchar{'x'}), /* a char is stored as a wide character */
            same("wchar", vc::Wchar{0x263A}), same("float", 1.5f), same("double", -0.25), same("null", vc::Null{}),
            row<std::string, std::string_view>("literal", "text", "text", "text"),
            row<std::string, std::string_view>("string", std::string("a string"), "a string", "a string"),
            row<std::string_view>("view", std::string_view("view, not NUL-terminated", 4), "view", "view"),
            row<vc::Bytes>("vector", std::vector<std::uint8_t>{9, 8, 7}, {9, 8, 7}, {9, 8, 7}),
            same("bytes", vc::Bytes{raw, sizeof raw}), same("vwf", vc::Vwf{{wire.data(), wire.size()}}),
            same("dest", vc::Destination::queue("orders")), same("map", std::move(innerMap)),
            same("stream", std::move(innerStream)),
            same("unknown", vc::Unknown{{unknownField, sizeof unknownField}})); /* last: no typed getter */

        char mapMem[1024], streamMem[1024];
        vc::Map map = vc::Map::create_in(mapMem, sizeof mapMem);
        addAndReadBack(map, rows);
        vc::Stream stream = vc::Stream::create_in(streamMem, sizeof streamMem);
        addAndReadBack(stream, rows);
    }
    live.expectBalanced(); /* every nested map and stream read back was closed by its owner */
}

TEST(CppLayer, ConversionsAndFailuresAsExceptionsAndCodes)
{
    char mem[128];
    vc::Map map = vc::Map::create_in(mem, sizeof mem);
    map.add(std::int64_t{1} << 40, "big");
    EXPECT_EQ(std::nullopt, map.get<std::int32_t>("absent"));
    EXPECT_TRUE(!map.contains("absent") && map.contains("big"));
    std::int8_t small = 0;
    EXPECT_EQ(VELCLIENT_FAIL, map.try_get("big", small));
    vc::Message m = vc::Message::create();
    const std::pair<std::function<void()>, std::string> throwing[] = {
        {[&] { map.get<std::int8_t>("big"); }, ""}, /* the text as the C API stored it */
        {[&] { m.set_topic(std::string(251, 't')); },
         "Destination string length of 251 exceeds maximum of 250 for destination type 0 in velClient_msg_setDestination"},
        {[] { vc::Message::from_wire("\xde\xad", 2); }, "Invalid VWF frame (truncated frame header at byte 0) in _velClient_vwfParse"}};
    for (const auto &[call, text] : throwing) {
        try {
            call();
            ADD_FAILURE() << "no exception: " << text;
        } catch (const vc::Error &e) {
            EXPECT_EQ(VELCLIENT_FAIL, e.code());
            EXPECT_EQ(veltest::lastSubCode(), e.sub_code());
            EXPECT_EQ(veltest::lastErrorText(), e.what());
            EXPECT_EQ(0u, std::string(e.what()).rfind(text, 0)) << e.what();
        }
    }
    EXPECT_EQ(std::nullopt, m.destination()); /* nothing changed */
    EXPECT_EQ(VELCLIENT_FAIL, m.try_set_destination({vc::DestinationType::Null, "x"}));
    vc::Message out;
    EXPECT_EQ(VELCLIENT_FAIL, vc::Message::try_from_wire("\xde\xad", 2, out));
    EXPECT_FALSE(out);
}

TEST(CppLayer, OwnersGiveBackWhatTheyHoldDumpWholeAndMoveOutOfCallbacks)
{
    Live live;
    {
        vc::Message a = vc::Message::create();
        a.set_attachment(std::string(3000, 'z')); /* a hex dump well beyond the first 4 KB try */
        vc::Message b = a.dup();
        vc::Message moved = std::move(a);
        EXPECT_TRUE(!a && moved);
        const std::string text = moved.dump();
        EXPECT_NE(std::string::npos, text.find("Binary Attachment:                      len=3000\n"));
        EXPECT_EQ(text.size(), std::strlen(text.c_str()));
        /* 187 full lines of 16 bytes and one of 8: nothing cut off */
        EXPECT_EQ(text.rfind("  7a 7a 7a 7a 7a 7a 7a 7a                               zzzzzzzz\n"), text.size() - 65);
        EXPECT_EQ(text.substr(0, text.find("len=3000\n") + 9), moved.dump(VELCLIENT_MSGDUMP_BRIEF)); /* no hex lines */
        vc::Map props = b.create_user_properties();
        props.add(1.0f, "f");
        vc::Datablock d = vc::Datablock::alloc(10);
        vc::Datablock second = d.share();
        d.reset();
        EXPECT_GE(second.data().second, 10u); /* the block outlives the first owner */
        vc::WireImage image;
        ASSERT_EQ(VELCLIENT_OK, b.try_encode(image));
        EXPECT_EQ(b.to_wire(), std::vector<std::uint8_t>(image.data, image.data + image.size));
        props.release(); /* encoding closed the message's map; its handle is not ours to close */
        /* A session callback keeps a message by moving it out. */
        vc::Message kept;
        int calls = 0;
        vc::Session session({{"SESSION_CLIENT_NAME", "cpp"}, {"SESSION_GENERATE_SEQUENCE_NUMBER", "1"}}, [&](vc::Message &m) {
            if (++calls == 1)
                kept = std::move(m);
            else if (calls == 2)
                throw std::runtime_error("from the callback");
        });
        vc::Message m = vc::Message::create();
        m.set_topic("t");
        session.send(m);
        ASSERT_TRUE(kept);
        EXPECT_EQ(1, kept.sequence_number());
        EXPECT_THROW(session.send(m), std::runtime_error); /* the callback's exception comes out of send */
        session.send(m);                                    /* and only once */
        EXPECT_EQ(3, calls);
    }
    live.expectBalanced();
}
