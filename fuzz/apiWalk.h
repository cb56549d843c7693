/*
 * apiWalk.h - what the API-program fuzz target does with one input, shared
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
#include <tuple>
#include <type_traits>
#include <vector>

#include "containerWalk.h"
#include "vwfWalk.h"
#include "fuzzSetup.h"
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
        T v;
        fill(reinterpret_cast<std::uint8_t *>(&v), sizeof v);
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

struct Machine {
    Handle msgs[4] = {};
    Handle conts[8] = {};
    bool inApp[8] = {};            /* the slot's container lives in memory of this program */
    std::vector<Handle> heldMsgs;  /* every message this program owns, once each */
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
    /* A name or text as the trace shows it. */
    void sayText(const char *s)
    {
        if (s == nullptr)
            say("NULL");
        else if (std::strlen(s) > 20)
            say("<%zu chars>", std::strlen(s));
        else
            say("\"%s\"", s);
    }
    Rc done(Rc rc)
    {
        say(" -> %s", velClient_returnCodeToString(rc));
        return rc;
    }
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
    static velClient_rxMsgCallback_returnCode_t onReceive(Handle, Handle msg, void *self)
    {
        auto &m = *static_cast<Machine *>(self);
        readEverything(msg);
        if (m.takeInto < 0)
            return VELCLIENT_CALLBACK_OK;
        m.say(" [received, kept in m%d]", m.takeInto);
        m.putMsg(static_cast<unsigned>(m.takeInto), msg);
        m.takeInto = -1;
        return VELCLIENT_CALLBACK_TAKE_MSG;
    }
    Handle sessionHandle()
    {
        static const char *const props[] = {"SESSION_GENERATE_SEQUENCE_NUMBER", "1", "SESSION_GENERATE_SENDER_ID",
                                            "1", "SESSION_GENERATE_SEND_TIMESTAMPS", "1", nullptr};
        if (session == nullptr && velClient_session_create(props, onReceive, this, &session) != VELCLIENT_OK)
            ok = false;
        return session;
    }
    void finish()
    {
        say("end of program: close every container reference held, free every message\n");
        for (auto it = heldConts.rbegin(); it != heldConts.rend(); ++it)
            velClient_container_closeMapStream(&*it);
        for (Handle &h : heldMsgs)
            velClient_msg_free(&h);
        if (session != nullptr)
            velClient_session_destroy(&session);
    }
};

/* ---- Operands -------------------------------------------------------------------------------------------
 * An operand reads itself from the program when it is made, shows itself in the trace (show), gives the
 * call its arguments (args) and, when it is an output, takes what the call gave (after). */
struct Operand {
    void after(Machine &, Rc) {}
};

/* One value read by a Reader function: a size, a number, a name or a text. */
template <typename T, T (Reader::*Get)()>
struct Read : Operand {
    T v;
    Read(Machine &, Reader &r) : v((r.*Get)()) {}
    void show(Machine &m) const
    {
        if constexpr (std::is_pointer_v<T>)
            m.sayText(v);
        else if constexpr (std::is_floating_point_v<T>)
            m.say("%f", static_cast<double>(v));
        else
            m.say("%lld", static_cast<long long>(v));
    }
    auto args() const { return std::tuple(v); }
};
using Size = Read<std::uint32_t, &Reader::size>;
using Name = Read<const char *, &Reader::name>;
using Text = Read<const char *, &Reader::text>;
template <typename T>
using Value = Read<T, &Reader::value<T>>;

/* A message (Msg) or container slot whose handle the call takes. */
template <bool Msg>
struct Slot : Operand {
    unsigned i;
    Handle h;
    Slot(Machine &m, Reader &r) : i(r.byte() % (Msg ? 4u : 8u)), h(Msg ? m.msgs[i] : m.conts[i]) {}
    void show(Machine &m) const { m.say(Msg ? "m%u" : "c%u", i); }
    auto args() const { return std::tuple(h); }
};
using M = Slot<true>;
using C = Slot<false>;

/* A slot the call frees or closes: the call gets a copy, the slot keeps the stale handle. */
template <bool Msg>
struct Freed : Slot<Msg> {
    Handle copy = this->h;
    using Slot<Msg>::Slot;
    void show(Machine &m) const { m.say(Msg ? "&m%u" : "&c%u", this->i); }
    auto args() { return std::tuple(&copy); }
    void after(Machine &m, Rc rc)
    {
        if (rc == VELCLIENT_OK)
            Machine::drop(Msg ? m.heldMsgs : m.heldConts, this->h);
    }
};

/* A slot that takes the message or container the call gives, when it succeeds (InApp: a container in the
 * program's memory). */
template <bool Msg, bool InApp = false>
struct Out : Operand {
    unsigned i;
    Handle h = nullptr;
    Out(Machine &, Reader &r) : i(r.byte() % (Msg ? 4u : 8u)) {}
    void show(Machine &m) const { m.say(Msg ? "&m%u" : "&c%u", i); }
    auto args() { return std::tuple(&h); }
    void after(Machine &m, Rc rc)
    {
        if (rc != VELCLIENT_OK)
            return;
        if constexpr (Msg)
            m.putMsg(i, h);
        else
            m.putCont(i, h, InApp);
    }
};
using MOut = Out<true>;
using COut = Out<false>;
using AppCOut = Out<false, true>;

/* A container, and the slot `to` for the sub-container the call opens on it (which lives where it does). */
struct Sub : C {
    unsigned to;
    Handle out = nullptr;
    Sub(Machine &m, Reader &r) : C(m, r), to(r.byte() % 8) {}
    void show(Machine &m) const { m.say("c%u, &c%u", i, to); }
    auto args() { return std::tuple(h, &out); }
    void after(Machine &m, Rc rc)
    {
        if (rc == VELCLIENT_OK)
            m.putCont(to, out, m.inApp[i]);
    }
};

/* A container (or a message, Msg) and a field read from it: a map or stream in the field is an open
 * handle, kept in slot `to` (in the program's memory when the container it came from is). */
template <bool Msg>
struct FieldOf : Slot<Msg> {
    unsigned to;
    velClient_field_t f{};
    FieldOf(Machine &m, Reader &r) : Slot<Msg>(m, r), to(r.byte() % 8) {}
    void show(Machine &m) const { m.say(Msg ? "m%u, &field, sizeof field" : "c%u, &field, sizeof field", this->i); }
    auto args() { return std::tuple(this->h, &f, sizeof f); }
    void after(Machine &m, Rc rc)
    {
        if (rc != VELCLIENT_OK || (f.type != VELCLIENT_MAP && f.type != VELCLIENT_STREAM))
            return;
        m.say(" [%s kept in c%u]", f.type == VELCLIENT_MAP ? "map" : "stream", to);
        m.putCont(to, f.value.map, !Msg && m.inApp[this->i]);
    }
};

/* Operands read from nothing. */

/* Where the call writes one result of type T. */
template <typename T>
struct Into : Operand {
    T v{};
    Into(Machine &, Reader &) {}
    void show(Machine &m) const { m.say("&out"); }
    auto args() { return std::tuple(&v); }
};
using FieldName = Into<const char *>;

struct Null : Operand {
    Null(Machine &, Reader &) {}
    void show(Machine &m) const { m.say("NULL"); }
    auto args() const { return std::tuple(nullptr); }
};

struct Session : Operand {
    Handle h;
    Session(Machine &m, Reader &) : h(m.sessionHandle()) {}
    void show(Machine &m) const { m.say("session"); }
    auto args() const { return std::tuple(h); }
};

/* A destination d (see the format above). */
struct Dest : Operand {
    velClient_destination_t d;
    Dest(Machine &, Reader &r) : d{static_cast<velClient_destinationType_t>(r.byte() % 5 - 1), r.text()} {}
    void show(Machine &m) const
    {
        m.say("{%d, ", d.destType);
        m.sayText(d.dest);
        m.say("}");
    }
    auto args() const { return std::tuple(&d, sizeof d); }
};

/* Bytes of a part (see the format above) lent to the library, and their size (shown again when Sized). */
template <bool Sized>
struct Part : Operand {
    std::uint32_t size;
    std::uint8_t framing;
    std::uint8_t *p;
    Part(Machine &m, Reader &r) : size(r.size()), framing(r.byte() % 3), p(m.lend(size))
    {
        std::uint8_t unlent[64];
        r.fill(p != nullptr ? p : unlent, std::min<std::uint32_t>(size, 64));
        if (p != nullptr && framing != 0 && size >= 5) {
            p[0] = framing == 1 ? 0x2B : 0x2F;
            for (int i = 0; i < 4; ++i)
                p[1 + i] = static_cast<std::uint8_t>(size >> (8 * (3 - i)));
        }
    }
    void show(Machine &m) const
    {
        m.say("<%u bytes%s>", size, framing == 1 ? " as map" : framing == 2 ? " as stream" : "");
        if constexpr (Sized)
            m.say(", %u", size);
    }
    auto args() const { return std::tuple(p, size); }
};

/* Memory of the program for a new container, and its size. */
struct Lent : Operand {
    std::uint32_t size;
    char *mem;
    Lent(Machine &m, Reader &r) : size(r.size()), mem(reinterpret_cast<char *>(m.lend(size))) {}
    void show(Machine &m) const { m.say("<%u bytes of the program>, %u", size, size); }
    auto args() const { return std::tuple(mem, size); }
};

/* len zero bytes, and len. */
struct Zeros : Operand {
    std::uint32_t len;
    Zeros(Machine &, Reader &r) : len(r.size()) {}
    void show(Machine &m) const { m.say("<%u zero bytes>, %u", len, len); }
    auto args() const
    {
        static const std::vector<std::uint8_t> zeros(2100000);
        return std::tuple(zeros.data(), len);
    }
};

/* A text of s characters. */
struct Chars : Operand {
    std::string s;
    Chars(Machine &, Reader &r) : s(r.size(), 's') {}
    void show(Machine &m) const { m.say("<%zu chars>", s.size()); }
    auto args() const { return std::tuple(s.c_str()); }
};

/* A field with a one-byte length of any wire type: its value bytes come from the program. */
struct Unknown : Operand {
    std::uint8_t field[66];
    std::uint8_t len;
    Unknown(Machine &, Reader &r) : field{static_cast<std::uint8_t>(r.byte() & 0xFC), 0}, len(r.byte() % 64)
    {
        field[1] = static_cast<std::uint8_t>(len + 2);
        r.fill(field + 2, len);
    }
    void show(Machine &m) const { m.say("<type 0x%02X, %u bytes>, %u", field[0], len + 2u, len + 2u); }
    auto args() const { return std::tuple(field, len + 2u); }
};

/* ---- Operations ---------------------------------------------------------------------------------------- */

struct Op {
    const char *name;
    void (*run)(Machine &, Reader &, const char *name);
};

/* A call of F: its operands read in order (a braced list is evaluated left to right), the call traced as
 * op(operands) with its result, then each output taking what the call gave. A helper that returns nothing
 * is traced as op operands. */
template <auto F, typename... A>
void call(Machine &m, Reader &r, const char *op)
{
    std::tuple<A...> operands{A(m, r)...};
    std::apply(
        [&](A &...o) {
            auto run = [&] { return std::apply(F, std::tuple_cat(o.args()...)); };
            constexpr bool returnsRc = !std::is_void_v<decltype(run())>;
            const char *sep = "";
            m.say(returnsRc ? "%s(" : "%s ", op);
            ((m.say("%s", sep), o.show(m), sep = ", "), ...);
            if constexpr (returnsRc) {
                m.say(")");
                Rc rc = m.done(run());
                (o.after(m, rc), ...);
            } else {
                run();
            }
        },
        operands);
}

inline void walkFromTop(Handle c) { walk(c, 0); }

/* The value operand of a typed add, of the type the add takes (declared only, for decltype). */
template <typename T>
Value<T> valueOf(Rc (*)(Handle, T, const char *));

/* A row: the function called and its operands in the order they are read. An opcode is its row's index:
 * rows are only ever appended, so that the seeds keep their meaning. */
#define VELFUZZ_CALL(f, ...) {#f, call<f, __VA_ARGS__>}
/* velClient_container_add<T>(c, v, n) */
#define VELFUZZ_ADD(T) VELFUZZ_CALL(velClient_container_add##T, C, decltype(valueOf(velClient_container_add##T)), Name)

inline const Op ops[] = {
    VELFUZZ_CALL(velClient_msg_alloc, MOut),
    VELFUZZ_CALL(velClient_msg_free, Freed<true>),
    VELFUZZ_CALL(velClient_msg_dup, M, MOut),
    VELFUZZ_CALL(velClient_msg_reset, M),
    VELFUZZ_CALL(velClient_msg_setBinaryAttachment, M, Part<false>),
    VELFUZZ_CALL(velClient_msg_setBinaryAttachmentPtr, M, Part<false>),
    VELFUZZ_CALL(velClient_msg_setUserData, M, Part<false>),
    VELFUZZ_CALL(velClient_msg_setUserDataPtr, M, Part<false>),
    VELFUZZ_CALL(velClient_msg_setXml, M, Part<false>),
    VELFUZZ_CALL(velClient_msg_setCorrelationTag, M, Part<false>),
    VELFUZZ_CALL(velClient_msg_setCorrelationTagPtr, M, Part<false>),
    VELFUZZ_CALL(velClient_msg_setBinaryAttachmentString, M, Text),
    VELFUZZ_CALL(velClient_msg_setTopicPtr, M, Text),
    VELFUZZ_CALL(velClient_msg_setQueueNamePtr, M, Text),
    VELFUZZ_CALL(velClient_msg_setDestination, M, Dest),
    VELFUZZ_CALL(velClient_msg_setReplyTo, M, Dest),
    VELFUZZ_CALL(velClient_msg_deleteReplyTo, M),
    VELFUZZ_CALL(velClient_msg_setReplyToSuffix, M, Session, Text),
    {"velClient_msg_extractDatablock",
     [](Machine &m, Reader &r, const char *op) {
         M msg(m, r);
         unsigned part = r.byte() % 13;
         Handle block = nullptr;
         velClient_bufInfo_t info{};
         m.say("%s(m%u, %u, &block, &info)", op, msg.i, part);
         if (m.done(velClient_msg_extractDatablock(msg.h, static_cast<velClient_bufInfo_index_t>(part), &block,
                                                   &info)) == VELCLIENT_OK)
             velClient_datablock_free(&block);
     }},
    VELFUZZ_CALL(velClient_msg_setSenderId, M, Text),
    VELFUZZ_CALL(velClient_msg_setApplicationMsgType, M, Text),
    VELFUZZ_CALL(velClient_msg_setApplicationMessageId, M, Text),
    VELFUZZ_CALL(velClient_msg_setCorrelationId, M, Text),
    VELFUZZ_CALL(velClient_msg_setHttpContentType, M, Text),
    VELFUZZ_CALL(velClient_msg_setHttpContentEncoding, M, Text),
    VELFUZZ_CALL(velClient_msg_setSequenceNumber, M, Value<velClient_uint64_t>),
    VELFUZZ_CALL(velClient_msg_setSenderTimestamp, M, Value<velClient_int64_t>),
    VELFUZZ_CALL(velClient_msg_setExpiration, M, Value<velClient_int64_t>),
    VELFUZZ_CALL(velClient_msg_setTimeToLive, M, Value<velClient_int64_t>),
    VELFUZZ_CALL(velClient_msg_deleteSenderId, M),
    VELFUZZ_CALL(velClient_msg_deleteSequenceNumber, M),
    VELFUZZ_CALL(velClient_msg_deleteCorrelationId, M),
    VELFUZZ_CALL(readEverything, M),
    VELFUZZ_CALL(velClient_msg_createBinaryAttachmentMap, M, COut, Size),
    VELFUZZ_CALL(velClient_msg_createBinaryAttachmentStream, M, COut, Size),
    VELFUZZ_CALL(velClient_msg_createUserPropertyMap, M, COut, Size),
    VELFUZZ_CALL(velClient_msg_getBinaryAttachmentMap, M, COut),
    VELFUZZ_CALL(velClient_msg_getBinaryAttachmentStream, M, COut),
    VELFUZZ_CALL(velClient_msg_getUserPropertyMap, M, COut),
    VELFUZZ_CALL(velClient_msg_setBinaryAttachmentContainer, M, C),
    {"velClient_msg_setBinaryAttachmentContainerPtr",
     [](Machine &m, Reader &r, const char *op) {
         /* Only over the program's own memory; the last operation of the table takes any container. */
         M msg(m, r);
         C c(m, r);
         m.say("%s(m%u, c%u)", op, msg.i, c.i);
         if (m.inApp[c.i])
             m.done(velClient_msg_setBinaryAttachmentContainerPtr(msg.h, c.h));
         else
             m.say(" [skipped: c%u is not in the program's memory]", c.i);
     }},
    VELFUZZ_CALL(velClient_msg_setUserPropertyMap, M, C),
    VELFUZZ_CALL(velClient_container_createMap, AppCOut, Lent),
    VELFUZZ_CALL(velClient_container_createStream, AppCOut, Lent),
    VELFUZZ_CALL(velClient_container_openMapFromPtr, AppCOut, Part<true>),
    VELFUZZ_CALL(velClient_container_addNull, C, Name),
    VELFUZZ_ADD(Boolean), VELFUZZ_ADD(Uint8), VELFUZZ_ADD(Int8), VELFUZZ_ADD(Uint16), VELFUZZ_ADD(Int16),
    VELFUZZ_ADD(Uint32), VELFUZZ_ADD(Int32), VELFUZZ_ADD(Uint64), VELFUZZ_ADD(Int64), VELFUZZ_ADD(Char),
    VELFUZZ_ADD(Wchar), VELFUZZ_ADD(Float), VELFUZZ_ADD(Double),
    VELFUZZ_CALL(velClient_container_addString, C, Chars, Name),
    VELFUZZ_CALL(velClient_container_addByteArray, C, Zeros, Name),
    VELFUZZ_CALL(velClient_container_addVwf, C, Zeros, Name),
    VELFUZZ_CALL(velClient_container_addDestination, C, Dest, Name),
    VELFUZZ_CALL(velClient_container_addContainer, C, C, Name),
    VELFUZZ_CALL(velClient_container_addUnknownField, C, Unknown, Name),
    VELFUZZ_CALL(velClient_container_openSubMap, Sub, Name),
    VELFUZZ_CALL(velClient_container_openSubStream, Sub, Name),
    VELFUZZ_CALL(velClient_container_deleteField, C, Name),
    VELFUZZ_CALL(velClient_container_closeMapStream, Freed<false>),
    VELFUZZ_CALL(velClient_container_rewind, C),
    VELFUZZ_CALL(velClient_container_getNextField, FieldOf<false>, FieldName),
    VELFUZZ_CALL(velClient_container_getField, FieldOf<false>, Name),
    VELFUZZ_CALL(velClient_container_getSubMap, Sub, Name),
    VELFUZZ_CALL(velClient_container_getSubStream, Sub, Name),
    VELFUZZ_CALL(typedGetters, C, Name),
    {"walk", call<walkFromTop, C>},
    {"velClient_container_getContainerPtr+getSize",
     [](Machine &m, Reader &r, const char *op) {
         C c(m, r);
         void *bytes = nullptr;
         velClient_uint32_t size = 0;
         std::size_t size2 = 0;
         m.say("%s(c%u)", op, c.i);
         if (m.done(velClient_container_getContainerPtr(c.h, &bytes, &size)) == VELCLIENT_OK &&
             (velClient_container_getSize(c.h, &size2) != VELCLIENT_OK || size2 != size))
             m.ok = false;
         velClient_container_hasNextField(c.h);
     }},
    {"velClient_msg_encodeToVWF+decodeFromVwf",
     [](Machine &m, Reader &r, const char *op) {
         M msg(m, r), to(m, r);
         velClient_bufInfo_t info{};
         Handle block = nullptr, out = nullptr;
         m.say("%s(m%u, &info, &block) then decode into m%u", op, msg.i, to.i);
         if (m.done(velClient_msg_encodeToVWF(msg.h, &info, &block)) != VELCLIENT_OK)
             return;
         if (velClient_msg_decodeFromVwf(&info, &out) == VELCLIENT_OK)
             m.putMsg(to.i, out);
         else
             m.ok = false; /* an encoding must decode */
         velClient_datablock_free(&block);
     }},
    VELFUZZ_CALL(velClient_msg_encodeToVWF, M, Null, Null),
    {"velClient_session_sendMsg",
     [](Machine &m, Reader &r, const char *op) {
         M msg(m, r);
         unsigned keep = r.byte() % 8;
         m.takeInto = keep < 4 ? static_cast<int>(keep) : -1;
         m.say("%s(session, m%u)", op, msg.i);
         m.done(velClient_session_sendMsg(m.sessionHandle(), msg.h));
         m.takeInto = -1;
     }},
    {"velClient_msg_dumpExt",
     [](Machine &m, Reader &r, const char *op) {
         M msg(m, r);
         unsigned flags = r.byte() % 2;
         std::size_t size = r.size() + 1u;
         std::vector<char> text(size, 'x');
         m.say("%s(m%u, buffer, %zu, %u)", op, msg.i, size, flags);
         if (m.done(velClient_msg_dumpExt(msg.h, text.data(), size, flags)) == VELCLIENT_OK &&
             std::memchr(text.data(), 0, size) == nullptr)
             m.ok = false;
     }},
    /* Any container by reference, also one in another message's data block: the setter copies that. */
    VELFUZZ_CALL(velClient_msg_setBinaryAttachmentContainerPtr, M, C),
    VELFUZZ_CALL(velClient_msg_setAsReplyMsg, M, Value<velClient_bool_t>),
    VELFUZZ_CALL(velClient_msg_setDeliveryMode, M, Value<velClient_uint32_t>),
    VELFUZZ_CALL(velClient_msg_setClassOfService, M, Value<velClient_uint32_t>),
    VELFUZZ_CALL(velClient_msg_setDMQEligible, M, Value<velClient_bool_t>),
    VELFUZZ_CALL(velClient_msg_setElidingEligible, M, Value<velClient_bool_t>),
    VELFUZZ_CALL(velClient_msg_setDeliverToOne, M, Value<velClient_bool_t>),
    VELFUZZ_CALL(velClient_msg_setAckImmediately, M, Value<velClient_bool_t>),
    VELFUZZ_CALL(velClient_msg_setDiscardIndication, M, Value<velClient_bool_t>),
    VELFUZZ_CALL(velClient_msg_deleteApplicationMessageId, M),
    VELFUZZ_CALL(velClient_msg_deleteApplicationMsgType, M),
    VELFUZZ_CALL(velClient_msg_deleteHttpContentEncoding, M),
    VELFUZZ_CALL(velClient_msg_deleteHttpContentType, M),
    VELFUZZ_CALL(velClient_msg_deleteSenderTimestamp, M),
    VELFUZZ_CALL(velClient_msg_setXmlPtr, M, Part<false>),
    VELFUZZ_CALL(velClient_msg_getBinaryAttachmentField, FieldOf<true>),
    VELFUZZ_CALL(velClient_msg_getBinaryAttachmentContainerSize, M, Into<std::size_t>),
    VELFUZZ_CALL(velClient_msg_getConsumerId, M, Value<velClient_uint8_t>, Into<velClient_consumerId_t>),
    {"velClient_msg_getVWFPtr",
     [](Machine &m, Reader &r, const char *op) {
         /* The cached image shows the message as it was when encoded: it must still decode. */
         M msg(m, r);
         velClient_uint8_t *bytes = nullptr;
         velClient_uint32_t size = 0;
         Handle out = nullptr;
         m.say("%s(m%u, &bytes, &size)", op, msg.i);
         if (m.done(velClient_msg_getVWFPtr(msg.h, &bytes, &size)) != VELCLIENT_OK)
             return;
         velClient_bufInfo_t info{bytes, size};
         if (velClient_msg_decodeFromVwf(&info, &out) != VELCLIENT_OK)
             m.ok = false;
         velClient_msg_free(&out);
     }},
    {"velClient_msg_getDestinationTopicSuffix",
     [](Machine &m, Reader &r, const char *op) {
         M msg(m, r);
         const char *suffix = nullptr;
         m.say("%s(m%u, session, &suffix)", op, msg.i);
         if (m.done(velClient_msg_getDestinationTopicSuffix(msg.h, m.sessionHandle(), &suffix)) == VELCLIENT_OK)
             m.say(" [%zu chars]", std::strlen(suffix));
     }},
};

#undef VELFUZZ_ADD
#undef VELFUZZ_CALL

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
