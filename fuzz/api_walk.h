/*
 * api_walk.h - what the API-program fuzz target does with one input, shared
 * with the test that replays its seed corpus: the input is a program of calls
 * to the public API, run against a few slots of messages and container
 * handles, so that trees of containers grow, close and are deleted from with
 * children open, in messages and in application memory, across duplicates,
 * encodes, decodes and sends.
 *
 * Program format: one opcode byte, then its operands, repeated. An opcode at
 * or past the end of the table is skipped, so that adding an operation at the
 * end keeps every existing program meaning what it meant. Operands are single
 * bytes unless said otherwise; reading past the end of the input gives 0.
 *   m  message slot (byte % 4)            c  container slot (byte % 8)
 *   n  name: "a", "b", "c", a 300-character name, or NULL (byte % 5)
 *   t  text (byte % 8, table `texts` below)
 *   s  size: the byte itself below 0xF0, else an entry of `bigSizes`
 *   v  a value of the call's type: sizeof(type) raw bytes
 *   d  destination: type (byte % 5 - 1) and text t
 * Bytes of a part (b): a size s, a framing byte (0 as is, 1 a map header,
 * 2 a stream header whose length is the size), then min(s, 64) content bytes.
 *
 * Every call is made whatever the state of its slots (stale, closed or empty
 * handles must fail cleanly). At the end every container reference still held
 * is closed, every message freed and the session destroyed. With the
 * environment variable VELFUZZ_TRACE set, each call is printed to standard
 * error as it is made, with its result.
 *
 * runProgram returns false when the library answers something a caller can
 * see is wrong: an encoding that does not decode, a dump that is not
 * terminated, a container whose finalised size and size disagree.
 */
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "container_walk.h"
#include "vwf_walk.h"
#include "velclient/velClient.h"

namespace velfuzz {

using Handle = void *;
using Rc = velClient_returnCode_t;

inline const std::string longName(300, 'L');
inline const std::string text249(249, 'q');
inline const std::string text250(250, 'q');
inline const char *const texts[8] = {"a", "t/x", "#P2P/QUE/v:n/q", "#P2P/QTMP/v:n/tq", text249.c_str(),
                                     text250.c_str(), "", "b"};
inline const std::uint32_t bigSizes[16] = {250,  255,   256,   300,   1000,   2047,    2048,   4096,
                                           16383, 16384, 65535, 65536, 70000, 131072, 1048577, 2000000};

/* Start-up properties under which every growth takes a new data block: five tiny size classes and a pool
 * that keeps nothing for reuse. */
inline const char *const tinyClasses[] = {"GLOBAL_DBQUANTASIZE_0", "1", "GLOBAL_DBQUANTASIZE_1", "2",
                                          "GLOBAL_DBQUANTASIZE_2", "3", "GLOBAL_DBQUANTASIZE_3", "4",
                                          "GLOBAL_DBQUANTASIZE_4", "5", "GLOBAL_MAXPOOLMEM",     "0",
                                          nullptr};

struct Reader {
    const std::uint8_t *p;
    const std::uint8_t *end;

    std::uint8_t byte() { return p < end ? *p++ : 0; }
    /* The next n bytes into out, zeros past the program's end. (One copy, not
     * a loop of byte(): GCC 12 at -O3 vectorises such a loop and then reports
     * writes past the buffer that cannot happen.) */
    void fill(std::uint8_t *out, std::size_t n)
    {
        std::size_t have = std::min(n, static_cast<std::size_t>(end - p));
        std::memcpy(out, p, have);
        std::memset(out + have, 0, n - have);
        p += have;
    }
    template <typename T>
    T value()
    {
        std::uint8_t raw[sizeof(T)];
        fill(raw, sizeof raw);
        T v;
        std::memcpy(&v, raw, sizeof v);
        return v;
    }
    std::uint32_t size()
    {
        std::uint8_t b = byte();
        return b < 0xF0 ? b : bigSizes[b - 0xF0];
    }
    const char *name()
    {
        const char *names[5] = {"a", "b", "c", longName.c_str(), nullptr};
        return names[byte() % 5];
    }
    const char *text() { return texts[byte() % 8]; }
};

/* A name or text as the trace shows it. */
inline std::string shown(const char *s)
{
    if (s == nullptr)
        return "NULL";
    /* Built by appending: "x" + std::string makes GCC 12 at -O3 report a memcpy overlap that cannot happen. */
    std::size_t n = std::strlen(s);
    std::string out(1, n > 20 ? '<' : '"');
    return out.append(n > 20 ? std::to_string(n) + " chars>" : std::string(s) + '"');
}

struct Machine {
    Handle msgs[4] = {};
    Handle conts[8] = {};
    bool inApp[8] = {};          /* the slot's container lives in memory of this program */
    std::vector<Handle> heldMsgs; /* every message this program owns, once each */
    std::vector<Handle> heldConts; /* every container reference it holds, once each */
    std::vector<std::unique_ptr<std::uint8_t[]>> arena; /* memory lent to the library */
    std::size_t arenaBytes = 0;
    Handle session = nullptr;
    int takeInto = -1; /* the message slot that the next received message goes to */
    bool trace = std::getenv("VELFUZZ_TRACE") != nullptr;
    bool ok = true;

    void say(const char *fmt, ...) __attribute__((format(printf, 2, 3)))
    {
        if (!trace)
            return;
        va_list ap;
        va_start(ap, fmt);
        std::vfprintf(stderr, fmt, ap);
        va_end(ap);
    }
    Rc done(Rc rc)
    {
        say(" -> %s", velClient_returnCodeToString(rc));
        return rc;
    }
    unsigned slotM(Reader &r) { return r.byte() % 4; }
    unsigned slotC(Reader &r) { return r.byte() % 8; }
    void putMsg(unsigned i, Handle h)
    {
        msgs[i] = h;
        heldMsgs.push_back(h);
    }
    void putCont(unsigned i, Handle h, bool app)
    {
        conts[i] = h;
        inApp[i] = app;
        heldConts.push_back(h);
    }
    static void drop(std::vector<Handle> &held, Handle h)
    {
        auto it = std::find(held.rbegin(), held.rend(), h);
        if (it != held.rend())
            held.erase(std::next(it).base());
    }
    /* n bytes of memory that outlive every message and container of the program (NULL past 16 MiB). */
    std::uint8_t *lend(std::size_t n)
    {
        if (arenaBytes + n > (16u << 20))
            return nullptr;
        arenaBytes += n;
        arena.emplace_back(new std::uint8_t[n + 1]());
        return arena.back().get();
    }
    /* Part bytes read from the program (see the format above), with their size. */
    std::uint8_t *partBytes(Reader &r, std::uint32_t &size)
    {
        size = r.size();
        std::uint8_t framing = r.byte() % 3;
        std::uint8_t *p = lend(size);
        for (std::uint32_t i = 0; i < std::min<std::uint32_t>(size, 64); ++i) {
            std::uint8_t b = r.byte();
            if (p != nullptr)
                p[i] = b;
        }
        if (p != nullptr && framing != 0 && size >= 5) {
            p[0] = framing == 1 ? 0x2B : 0x2F;
            for (int i = 0; i < 4; ++i)
                p[1 + i] = static_cast<std::uint8_t>(size >> (8 * (3 - i)));
        }
        say("<%u bytes%s>", size, framing == 1 ? " as map" : framing == 2 ? " as stream" : "");
        return p;
    }
    Handle sessionHandle();
    void finish();
};

inline velClient_rxMsgCallback_returnCode_t onReceive(Handle, Handle msg, void *user_p)
{
    auto &m = *static_cast<Machine *>(user_p);
    readEverything(msg);
    if (m.takeInto < 0)
        return VELCLIENT_CALLBACK_OK;
    m.say(" [received, kept in m%d]", m.takeInto);
    m.putMsg(static_cast<unsigned>(m.takeInto), msg);
    m.takeInto = -1;
    return VELCLIENT_CALLBACK_TAKE_MSG;
}

inline Handle Machine::sessionHandle()
{
    static const char *const props[] = {"SESSION_GENERATE_SEQUENCE_NUMBER", "1", "SESSION_GENERATE_SENDER_ID", "1",
                                        "SESSION_GENERATE_SEND_TIMESTAMPS", "1", nullptr};
    if (session == nullptr && velClient_session_create(props, onReceive, this, &session) != VELCLIENT_OK)
        ok = false;
    return session;
}

inline void Machine::finish()
{
    say("end of program: close every container reference held, free every message\n");
    for (auto it = heldConts.rbegin(); it != heldConts.rend(); ++it)
        velClient_container_closeMapStream(&*it);
    for (Handle &h : heldMsgs)
        velClient_msg_free(&h);
    if (session != nullptr)
        velClient_session_destroy(&session);
}

struct Op {
    const char *name;
    void (*run)(Machine &, Reader &, const char *name);
};

/* ---- Per-type bodies shared by table rows ---------------------------------------------------------- */

template <typename T>
std::string shownValue(T v)
{
    if constexpr (std::is_floating_point_v<T>)
        return std::to_string(static_cast<double>(v));
    else
        return std::to_string(static_cast<long long>(v));
}

template <typename T, Rc (*F)(Handle, T, const char *)>
void addValue(Machine &m, Reader &r, const char *op)
{
    unsigned c = m.slotC(r);
    T v = r.value<T>();
    const char *n = r.name();
    m.say("%s(c%u, %s, %s)", op, c, shownValue(v).c_str(), shown(n).c_str());
    m.done(F(m.conts[c], v, n));
}

template <Rc (*F)(Handle, const velClient_uint8_t *, velClient_uint32_t, const char *)>
void addBytes(Machine &m, Reader &r, const char *op)
{
    static const std::vector<std::uint8_t> zeros(2100000);
    unsigned c = m.slotC(r);
    std::uint32_t len = r.size();
    const char *n = r.name();
    m.say("%s(c%u, <%u zero bytes>, %u, %s)", op, c, len, len, shown(n).c_str());
    m.done(F(m.conts[c], zeros.data(), len, n));
}

template <Rc (*F)(Handle, const char *)>
void msgText(Machine &m, Reader &r, const char *op)
{
    unsigned i = m.slotM(r);
    const char *t = r.text();
    m.say("%s(m%u, %s)", op, i, shown(t).c_str());
    m.done(F(m.msgs[i], t));
}

template <typename T, Rc (*F)(Handle, T)>
void msgNumber(Machine &m, Reader &r, const char *op)
{
    unsigned i = m.slotM(r);
    T v = r.value<T>();
    m.say("%s(m%u, %lld)", op, i, static_cast<long long>(v));
    m.done(F(m.msgs[i], v));
}

template <Rc (*F)(Handle)>
void msgOnly(Machine &m, Reader &r, const char *op)
{
    unsigned i = m.slotM(r);
    m.say("%s(m%u)", op, i);
    m.done(F(m.msgs[i]));
}

template <Rc (*F)(Handle, void *, velClient_uint32_t)>
void msgBytes(Machine &m, Reader &r, const char *op)
{
    unsigned i = m.slotM(r);
    m.say("%s(m%u, ", op, i);
    std::uint32_t size = 0;
    std::uint8_t *p = m.partBytes(r, size);
    m.say(")");
    m.done(F(m.msgs[i], p, size));
}

/* The copying setters take const bytes; one signature for the table. */
template <Rc (*F)(Handle, const void *, velClient_uint32_t)>
Rc copying(Handle msg, void *p, velClient_uint32_t size)
{
    return F(msg, p, size);
}

template <Rc (*F)(Handle, const velClient_destination_t *, std::size_t)>
void msgDestination(Machine &m, Reader &r, const char *op)
{
    unsigned i = m.slotM(r);
    velClient_destination_t d{static_cast<velClient_destinationType_t>(r.byte() % 5 - 1), r.text()};
    m.say("%s(m%u, {%d, %s})", op, i, d.destType, shown(d.dest).c_str());
    m.done(F(m.msgs[i], &d, sizeof d));
}

/* A call that gives a container: it goes to slot c when the call succeeds. */
template <Rc (*F)(Handle, Handle *, velClient_uint32_t)>
void msgCreate(Machine &m, Reader &r, const char *op)
{
    unsigned i = m.slotM(r), c = m.slotC(r);
    std::uint32_t size = r.size();
    Handle out = nullptr;
    m.say("%s(m%u, &c%u, %u)", op, i, c, size);
    if (m.done(F(m.msgs[i], &out, size)) == VELCLIENT_OK)
        m.putCont(c, out, false);
}

template <Rc (*F)(Handle, Handle *)>
void msgContainer(Machine &m, Reader &r, const char *op)
{
    unsigned i = m.slotM(r), c = m.slotC(r);
    Handle out = nullptr;
    m.say("%s(m%u, &c%u)", op, i, c);
    if (m.done(F(m.msgs[i], &out)) == VELCLIENT_OK)
        m.putCont(c, out, false);
}

template <Rc (*F)(Handle, Handle)>
void msgTakesContainer(Machine &m, Reader &r, const char *op)
{
    unsigned i = m.slotM(r), c = m.slotC(r);
    m.say("%s(m%u, c%u)", op, i, c);
    m.done(F(m.msgs[i], m.conts[c]));
}

template <Rc (*F)(Handle *, char *, std::size_t)>
void appCreate(Machine &m, Reader &r, const char *op)
{
    unsigned c = m.slotC(r);
    std::uint32_t size = r.size();
    char *mem = reinterpret_cast<char *>(m.lend(size));
    Handle out = nullptr;
    m.say("%s(&c%u, <%u bytes of the program>, %u)", op, c, size, size);
    if (m.done(F(&out, mem, size)) == VELCLIENT_OK)
        m.putCont(c, out, true);
}

template <Rc (*F)(Handle, Handle *, const char *)>
void openSub(Machine &m, Reader &r, const char *op)
{
    unsigned c = m.slotC(r), to = m.slotC(r);
    const char *n = r.name();
    Handle out = nullptr;
    m.say("%s(c%u, &c%u, %s)", op, c, to, shown(n).c_str());
    if (m.done(F(m.conts[c], &out, n)) == VELCLIENT_OK)
        m.putCont(to, out, m.inApp[c]);
}

/* A field read from slot c: a nested map or stream is an open handle, kept in slot `to`. */
inline void keepField(Machine &m, unsigned c, unsigned to, Rc rc, const velClient_field_t &f)
{
    if (rc == VELCLIENT_OK && (f.type == VELCLIENT_MAP || f.type == VELCLIENT_STREAM)) {
        m.say(" [%s kept in c%u]", f.type == VELCLIENT_MAP ? "map" : "stream", to);
        m.putCont(to, f.value.map, m.inApp[c]);
    }
}

/* ---- The operations -------------------------------------------------------------------------------- */

inline const Op ops[] = {
    {"velClient_msg_alloc",
     [](Machine &m, Reader &r, const char *op) {
         unsigned i = m.slotM(r);
         Handle out = nullptr;
         m.say("%s(&m%u)", op, i);
         if (m.done(velClient_msg_alloc(&out)) == VELCLIENT_OK)
             m.putMsg(i, out);
     }},
    {"velClient_msg_free",
     [](Machine &m, Reader &r, const char *op) {
         unsigned i = m.slotM(r);
         Handle h = m.msgs[i]; /* the slot keeps the stale handle */
         m.say("%s(&m%u)", op, i);
         if (m.done(velClient_msg_free(&h)) == VELCLIENT_OK)
             Machine::drop(m.heldMsgs, m.msgs[i]);
     }},
    {"velClient_msg_dup",
     [](Machine &m, Reader &r, const char *op) {
         unsigned i = m.slotM(r), to = m.slotM(r);
         Handle out = nullptr;
         m.say("%s(m%u, &m%u)", op, i, to);
         if (m.done(velClient_msg_dup(m.msgs[i], &out)) == VELCLIENT_OK)
             m.putMsg(to, out);
     }},
    {"velClient_msg_reset", msgOnly<velClient_msg_reset>},
    {"velClient_msg_setBinaryAttachment", msgBytes<copying<velClient_msg_setBinaryAttachment>>},
    {"velClient_msg_setBinaryAttachmentPtr", msgBytes<velClient_msg_setBinaryAttachmentPtr>},
    {"velClient_msg_setUserData", msgBytes<copying<velClient_msg_setUserData>>},
    {"velClient_msg_setUserDataPtr", msgBytes<velClient_msg_setUserDataPtr>},
    {"velClient_msg_setXml", msgBytes<copying<velClient_msg_setXml>>},
    {"velClient_msg_setCorrelationTag", msgBytes<copying<velClient_msg_setCorrelationTag>>},
    {"velClient_msg_setCorrelationTagPtr", msgBytes<velClient_msg_setCorrelationTagPtr>},
    {"velClient_msg_setBinaryAttachmentString", msgText<velClient_msg_setBinaryAttachmentString>},
    {"velClient_msg_setTopicPtr", msgText<velClient_msg_setTopicPtr>},
    {"velClient_msg_setQueueNamePtr", msgText<velClient_msg_setQueueNamePtr>},
    {"velClient_msg_setDestination", msgDestination<velClient_msg_setDestination>},
    {"velClient_msg_setReplyTo", msgDestination<velClient_msg_setReplyTo>},
    {"velClient_msg_deleteReplyTo", msgOnly<velClient_msg_deleteReplyTo>},
    {"velClient_msg_setReplyToSuffix",
     [](Machine &m, Reader &r, const char *op) {
         unsigned i = m.slotM(r);
         const char *t = r.text();
         m.say("%s(m%u, session, %s)", op, i, shown(t).c_str());
         m.done(velClient_msg_setReplyToSuffix(m.msgs[i], m.sessionHandle(), t));
     }},
    {"velClient_msg_extractDatablock",
     [](Machine &m, Reader &r, const char *op) {
         unsigned i = m.slotM(r), part = r.byte() % 13;
         Handle block = nullptr;
         velClient_bufInfo_t info{};
         m.say("%s(m%u, %u, &block, &info)", op, i, part);
         if (m.done(velClient_msg_extractDatablock(m.msgs[i], static_cast<velClient_bufInfo_index_t>(part), &block,
                                                   &info)) == VELCLIENT_OK)
             velClient_datablock_free(&block);
     }},
    {"velClient_msg_setSenderId", msgText<velClient_msg_setSenderId>},
    {"velClient_msg_setApplicationMsgType", msgText<velClient_msg_setApplicationMsgType>},
    {"velClient_msg_setApplicationMessageId", msgText<velClient_msg_setApplicationMessageId>},
    {"velClient_msg_setCorrelationId", msgText<velClient_msg_setCorrelationId>},
    {"velClient_msg_setHttpContentType", msgText<velClient_msg_setHttpContentType>},
    {"velClient_msg_setHttpContentEncoding", msgText<velClient_msg_setHttpContentEncoding>},
    {"velClient_msg_setSequenceNumber", msgNumber<velClient_uint64_t, velClient_msg_setSequenceNumber>},
    {"velClient_msg_setSenderTimestamp", msgNumber<velClient_int64_t, velClient_msg_setSenderTimestamp>},
    {"velClient_msg_setExpiration", msgNumber<velClient_int64_t, velClient_msg_setExpiration>},
    {"velClient_msg_setTimeToLive", msgNumber<velClient_int64_t, velClient_msg_setTimeToLive>},
    {"velClient_msg_deleteSenderId", msgOnly<velClient_msg_deleteSenderId>},
    {"velClient_msg_deleteSequenceNumber", msgOnly<velClient_msg_deleteSequenceNumber>},
    {"velClient_msg_deleteCorrelationId", msgOnly<velClient_msg_deleteCorrelationId>},
    {"readEverything",
     [](Machine &m, Reader &r, const char *op) {
         unsigned i = m.slotM(r);
         m.say("%s m%u", op, i);
         readEverything(m.msgs[i]);
     }},
    {"velClient_msg_createBinaryAttachmentMap", msgCreate<velClient_msg_createBinaryAttachmentMap>},
    {"velClient_msg_createBinaryAttachmentStream", msgCreate<velClient_msg_createBinaryAttachmentStream>},
    {"velClient_msg_createUserPropertyMap", msgCreate<velClient_msg_createUserPropertyMap>},
    {"velClient_msg_getBinaryAttachmentMap", msgContainer<velClient_msg_getBinaryAttachmentMap>},
    {"velClient_msg_getBinaryAttachmentStream", msgContainer<velClient_msg_getBinaryAttachmentStream>},
    {"velClient_msg_getUserPropertyMap", msgContainer<velClient_msg_getUserPropertyMap>},
    {"velClient_msg_setBinaryAttachmentContainer", msgTakesContainer<velClient_msg_setBinaryAttachmentContainer>},
    {"velClient_msg_setBinaryAttachmentContainerPtr",
     [](Machine &m, Reader &r, const char *op) {
         /* Only over the program's own memory: a container in a message moves when it grows. */
         unsigned i = m.slotM(r), c = m.slotC(r);
         m.say("%s(m%u, c%u)", op, i, c);
         if (m.inApp[c])
             m.done(velClient_msg_setBinaryAttachmentContainerPtr(m.msgs[i], m.conts[c]));
         else
             m.say(" [skipped: c%u is not in the program's memory]", c);
     }},
    {"velClient_msg_setUserPropertyMap", msgTakesContainer<velClient_msg_setUserPropertyMap>},
    {"velClient_container_createMap", appCreate<velClient_container_createMap>},
    {"velClient_container_createStream", appCreate<velClient_container_createStream>},
    {"velClient_container_openMapFromPtr",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r);
         m.say("%s(&c%u, ", op, c);
         std::uint32_t size = 0;
         std::uint8_t *p = m.partBytes(r, size);
         Handle out = nullptr;
         m.say(", %u)", size);
         if (m.done(velClient_container_openMapFromPtr(&out, p, size)) == VELCLIENT_OK)
             m.putCont(c, out, true);
     }},
    {"velClient_container_addNull",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r);
         const char *n = r.name();
         m.say("%s(c%u, %s)", op, c, shown(n).c_str());
         m.done(velClient_container_addNull(m.conts[c], n));
     }},
    {"velClient_container_addBoolean", addValue<velClient_bool_t, velClient_container_addBoolean>},
    {"velClient_container_addUint8", addValue<velClient_uint8_t, velClient_container_addUint8>},
    {"velClient_container_addInt8", addValue<velClient_int8_t, velClient_container_addInt8>},
    {"velClient_container_addUint16", addValue<velClient_uint16_t, velClient_container_addUint16>},
    {"velClient_container_addInt16", addValue<velClient_int16_t, velClient_container_addInt16>},
    {"velClient_container_addUint32", addValue<velClient_uint32_t, velClient_container_addUint32>},
    {"velClient_container_addInt32", addValue<velClient_int32_t, velClient_container_addInt32>},
    {"velClient_container_addUint64", addValue<velClient_uint64_t, velClient_container_addUint64>},
    {"velClient_container_addInt64", addValue<velClient_int64_t, velClient_container_addInt64>},
    {"velClient_container_addChar", addValue<char, velClient_container_addChar>},
    {"velClient_container_addWchar", addValue<velClient_wchar_t, velClient_container_addWchar>},
    {"velClient_container_addFloat", addValue<float, velClient_container_addFloat>},
    {"velClient_container_addDouble", addValue<double, velClient_container_addDouble>},
    {"velClient_container_addString",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r);
         std::string value(r.size(), 's');
         const char *n = r.name();
         m.say("%s(c%u, <%zu chars>, %s)", op, c, value.size(), shown(n).c_str());
         m.done(velClient_container_addString(m.conts[c], value.c_str(), n));
     }},
    {"velClient_container_addByteArray", addBytes<velClient_container_addByteArray>},
    {"velClient_container_addVwf", addBytes<velClient_container_addVwf>},
    {"velClient_container_addDestination",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r);
         velClient_destination_t d{static_cast<velClient_destinationType_t>(r.byte() % 5 - 1), r.text()};
         const char *n = r.name();
         m.say("%s(c%u, {%d, %s}, %s)", op, c, d.destType, shown(d.dest).c_str(), shown(n).c_str());
         m.done(velClient_container_addDestination(m.conts[c], &d, sizeof d, n));
     }},
    {"velClient_container_addContainer",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r), sub = m.slotC(r);
         const char *n = r.name();
         m.say("%s(c%u, c%u, %s)", op, c, sub, shown(n).c_str());
         m.done(velClient_container_addContainer(m.conts[c], m.conts[sub], n));
     }},
    {"velClient_container_addUnknownField",
     [](Machine &m, Reader &r, const char *op) {
         /* A field with a one-byte length of any wire type: its value bytes come from the program. */
         unsigned c = m.slotC(r);
         std::uint8_t field[66] = {static_cast<std::uint8_t>(r.byte() & 0xFC), 0};
         std::uint8_t len = r.byte() % 64;
         field[1] = static_cast<std::uint8_t>(len + 2);
         r.fill(field + 2, len);
         const char *n = r.name();
         m.say("%s(c%u, <type 0x%02X, %u bytes>, %u, %s)", op, c, field[0], len + 2u, len + 2u, shown(n).c_str());
         m.done(velClient_container_addUnknownField(m.conts[c], field, len + 2u, n));
     }},
    {"velClient_container_openSubMap", openSub<velClient_container_openSubMap>},
    {"velClient_container_openSubStream", openSub<velClient_container_openSubStream>},
    {"velClient_container_deleteField",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r);
         const char *n = r.name();
         m.say("%s(c%u, %s)", op, c, shown(n).c_str());
         m.done(velClient_container_deleteField(m.conts[c], n));
     }},
    {"velClient_container_closeMapStream",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r);
         Handle h = m.conts[c]; /* the slot keeps the stale handle */
         m.say("%s(&c%u)", op, c);
         if (m.done(velClient_container_closeMapStream(&h)) == VELCLIENT_OK)
             Machine::drop(m.heldConts, m.conts[c]);
     }},
    {"velClient_container_rewind",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r);
         m.say("%s(c%u)", op, c);
         m.done(velClient_container_rewind(m.conts[c]));
     }},
    {"velClient_container_getNextField",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r), to = m.slotC(r);
         velClient_field_t f{};
         const char *name = nullptr;
         m.say("%s(c%u, &field, sizeof field, &name)", op, c);
         keepField(m, c, to, m.done(velClient_container_getNextField(m.conts[c], &f, sizeof f, &name)), f);
     }},
    {"velClient_container_getField",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r), to = m.slotC(r);
         const char *n = r.name();
         velClient_field_t f{};
         m.say("%s(c%u, &field, sizeof field, %s)", op, c, shown(n).c_str());
         keepField(m, c, to, m.done(velClient_container_getField(m.conts[c], &f, sizeof f, n)), f);
     }},
    {"velClient_container_getSubMap", openSub<velClient_container_getSubMap>},
    {"velClient_container_getSubStream", openSub<velClient_container_getSubStream>},
    {"typedGetters",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r);
         const char *n = r.name();
         m.say("%s c%u, %s", op, c, shown(n).c_str());
         typedGetters(m.conts[c], n);
     }},
    {"walk",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r);
         m.say("%s c%u", op, c);
         walk(m.conts[c], 0);
     }},
    {"velClient_container_getContainerPtr+getSize",
     [](Machine &m, Reader &r, const char *op) {
         unsigned c = m.slotC(r);
         void *bytes = nullptr;
         velClient_uint32_t size = 0;
         std::size_t size2 = 0;
         m.say("%s(c%u)", op, c);
         if (m.done(velClient_container_getContainerPtr(m.conts[c], &bytes, &size)) == VELCLIENT_OK &&
             (velClient_container_getSize(m.conts[c], &size2) != VELCLIENT_OK || size2 != size))
             m.ok = false;
         velClient_container_hasNextField(m.conts[c]);
     }},
    {"velClient_msg_encodeToVWF+decodeFromVwf",
     [](Machine &m, Reader &r, const char *op) {
         unsigned i = m.slotM(r), to = m.slotM(r);
         velClient_bufInfo_t info{};
         Handle block = nullptr, out = nullptr;
         m.say("%s(m%u, &info, &block) then decode into m%u", op, i, to);
         if (m.done(velClient_msg_encodeToVWF(m.msgs[i], &info, &block)) != VELCLIENT_OK)
             return;
         if (velClient_msg_decodeFromVwf(&info, &out) == VELCLIENT_OK)
             m.putMsg(to, out);
         else
             m.ok = false; /* an encoding must decode */
         velClient_datablock_free(&block);
     }},
    {"velClient_msg_encodeToVWF",
     [](Machine &m, Reader &r, const char *op) {
         unsigned i = m.slotM(r);
         m.say("%s(m%u, NULL, NULL)", op, i);
         m.done(velClient_msg_encodeToVWF(m.msgs[i], nullptr, nullptr));
     }},
    {"velClient_session_sendMsg",
     [](Machine &m, Reader &r, const char *op) {
         unsigned i = m.slotM(r), keep = r.byte() % 8;
         m.takeInto = keep < 4 ? static_cast<int>(keep) : -1;
         m.say("%s(session, m%u)", op, i);
         m.done(velClient_session_sendMsg(m.sessionHandle(), m.msgs[i]));
         m.takeInto = -1;
     }},
    {"velClient_msg_dumpExt",
     [](Machine &m, Reader &r, const char *op) {
         unsigned i = m.slotM(r), flags = r.byte() % 2;
         std::size_t size = r.size() + 1u;
         std::vector<char> text(size, 'x');
         m.say("%s(m%u, buffer, %zu, %u)", op, i, size, flags);
         if (m.done(velClient_msg_dumpExt(m.msgs[i], text.data(), size, flags)) == VELCLIENT_OK &&
             std::memchr(text.data(), 0, size) == nullptr)
             m.ok = false;
     }},
};

inline constexpr std::size_t opCount = sizeof ops / sizeof ops[0];

/* Runs the program in data (see the top of this file); false when the library answered something wrong. */
inline bool runProgram(const std::uint8_t *data, std::size_t size)
{
    Machine m;
    Reader r{data, data + std::min<std::size_t>(size, 4096)};
    for (unsigned step = 0; r.p < r.end && step < 400; ++step) {
        std::uint8_t code = r.byte();
        if (code < opCount) {
            m.say("%3u: ", step);
            ops[code].run(m, r, ops[code].name);
            m.say("\n");
        }
    }
    m.finish();
    return m.ok;
}

} // namespace velfuzz
