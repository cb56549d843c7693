/*
 * bench_peers.cpp - velclient beside other C libraries that do the same kind
 * of work, in one binary and one run:
 *
 *   msgpack  msgpack-c, C API (msgpack.h)             VEL_HAVE_MSGPACK
 *   proton   Qpid Proton-C, pn_message_t / pn_data_t  VEL_HAVE_PROTON
 *   bson     libbson (bson.h)                         VEL_HAVE_BSON
 *   malloc   a plain baseline of malloc, memcpy and free (W1, W4, W5); named
 *            memcpy in W2 and W3, where it copies flat records into a buffer
 *            made once and scans them
 *
 * Each peer is optional: bench/CMakeLists.txt finds it with pkg-config and
 * defines its VEL_HAVE_* to 1 only when it is there. Each does the work in
 * its own usual way; where a library keeps reusable state (an output buffer,
 * a data tree) it is made once outside the timed loop and reset inside it,
 * the same way velclient writes into application memory made once.
 *
 * Workloads (one benchmark per workload and peer, named BM_Wn_<what>/<peer>):
 *
 *  W1 Lifecycle   create a message, set a 20-character topic, set a 100-byte
 *                 attachment by copy, free it. msgpack and bson have no
 *                 message object: they pack {topic, body} into a buffer
 *                 (msgpack) or a document (bson) that they create and free.
 *  W2 BuildMap    a map of 16 mixed fields (4 int32, 4 int64, 4 strings of
 *                 16 characters, 2 doubles, 2 booleans; names field00..)
 *                 or 256 (the same mix repeated), then its encoded bytes.
 *  W3 ReadMap     from the encoded 16-field bytes: look up 4 fields by name
 *                 (int32, int64, string, double), then iterate all 16.
 *  W4 WireRoundTrip  a message with a 20-character topic, 4 user properties
 *                 and a 1024-byte attachment encoded to wire bytes, decoded
 *                 into a new message object, one property read. msgpack and
 *                 bson pack {topic, props, body} and read props.p1 back; the
 *                 baseline copies velclient's wire size out and back in.
 *  W5 LifecycleThreads  W1 on one thread and on two at once.
 *  W7 LargeRoundTrip  velclient only: a 1 MiB attachment set by reference,
 *                 encoded, decoded into a new message, read, both freed;
 *                 beside the least a round trip must do, two 1 MiB copies.
 *
 * velclient sets its destination with velClient_msg_setDestination (which
 * copies the text), as applications do. bench/peers builds this file twice:
 * bench_peers on the installed shared library, bench_peers_static on the
 * static one.
 *
 * Times: the goals compare CPU time per operation (scripts/bench_goals.py).
 * W1-W4 and W7 run on one thread, where CPU time matches the wall clock on a
 * quiet machine. W5 uses
 * UseRealTime(): Google Benchmark then divides the wall-clock time of the
 * run by the operations of all threads together, so on 2 threads Time is
 * the inverse of the throughput and perfect scaling halves it; the CPU
 * column stays the CPU time per operation of one thread.
 *
 * W3 and W4 check, after the timed loop, what their last iteration read and
 * report an error instead of a time when the work was not done.
 */
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "benchMain.h"
#include "wireMessage.h"

#include "velclient/velClientMsg.h"

#ifndef VEL_HAVE_MSGPACK
#define VEL_HAVE_MSGPACK 0
#endif
#ifndef VEL_HAVE_PROTON
#define VEL_HAVE_PROTON 0
#endif
#ifndef VEL_HAVE_BSON
#define VEL_HAVE_BSON 0
#endif

#if VEL_HAVE_MSGPACK
#include <msgpack.h>
#endif
#if VEL_HAVE_PROTON
#include <proton/codec.h>
#include <proton/message.h>
#endif
#if VEL_HAVE_BSON
#include <bson.h>
#endif

namespace {

/* ======================================================================= */
/* Shared inputs                                                            */
/* ======================================================================= */

const char *const kTopic = "orders/eu/widgets/01"; /* 20 characters */
constexpr std::size_t kTopicLen = 20;
const char *const kString = "abcdefghijklmnop"; /* 16 characters */
constexpr std::size_t kStringLen = 16;
constexpr std::size_t kSmallAttachment = 100;
constexpr std::size_t kLargeAttachment = 1024;
constexpr std::size_t kBufferSize = 16384;

const std::vector<std::uint8_t> kAttachment(kLargeAttachment, 0x5A);

/* What an application passes to velClient_msg_setDestination (the text is copied). */
const velClient_destination_t kDestination{VELCLIENT_TOPIC_DESTINATION, kTopic};

constexpr std::size_t kHugeAttachment = 1024 * 1024;

enum class Kind { Int32, Int64, String, Double, Boolean };

struct Field {
    std::string name;
    Kind kind;
    std::int32_t i32;
    std::int64_t i64;
    double d;
    bool b;
};

/* The 16-field pattern (4 int32, 4 int64, 4 strings, 2 doubles, 2 booleans),
 * repeated for larger maps; the values are those of bench_container. */
std::vector<Field> makeFields(int n)
{
    std::vector<Field> out;
    char buf[16];
    for (int i = 0; i < n; ++i) {
        std::snprintf(buf, sizeof buf, "field%02d", i);
        Field f{buf, Kind::Int32, 0, 0, 0.0, false};
        switch (i % 16) {
        case 0: case 1: case 2: case 3: f.kind = Kind::Int32; f.i32 = i; break;
        case 4: case 5: case 6: case 7: f.kind = Kind::Int64; f.i64 = static_cast<std::int64_t>(i) << 33; break;
        case 8: case 9: case 10: case 11: f.kind = Kind::String; break;
        case 12: case 13: f.kind = Kind::Double; f.d = 1.5 * static_cast<double>(i); break;
        default: f.kind = Kind::Boolean; f.b = (i & 1) != 0; break;
        }
        out.push_back(f);
    }
    return out;
}

const std::vector<Field> kFields16 = makeFields(16);
const std::vector<Field> kFields256 = makeFields(256);

const std::vector<Field> &fieldsFor(const benchmark::State &state)
{
    return state.range(0) == 16 ? kFields16 : kFields256;
}

/* The four names looked up in W3 (one of each of the first four kinds). */
struct Lookup {
    const char *name;
    std::size_t len;
};
const Lookup kLookups[4] = {{"field02", 7}, {"field05", 7}, {"field09", 7}, {"field13", 7}};

/* What a reader does with the values it reads: folds them into one sum so
 * that none of the reads can be dropped. */
struct Sink {
    std::int64_t ints = 0;
    double doubles = 0.0;
    std::size_t chars = 0;
    int reads = 0; /* values read, names not counted */
    void add(std::int64_t v) { ints += v; ++reads; }
    void add(double v) { doubles += v; ++reads; }
    void add(const char *s, std::size_t n)
    {
        chars += n;
        ++reads;
        benchmark::DoNotOptimize(s);
    }
    void name(const char *s) { benchmark::DoNotOptimize(s); }
    /* Returns the number of values read. */
    int done()
    {
        benchmark::DoNotOptimize(ints);
        benchmark::DoNotOptimize(doubles);
        benchmark::DoNotOptimize(chars);
        return reads;
    }
};

/* Each W3 iteration reads 4 values by name and then all 16. */
constexpr int kReadsPerIteration = 4 + 16;

void expect(benchmark::State &state, bool ok, const char *what)
{
    if (!ok)
        state.SkipWithError(what);
}

/* ======================================================================= */
/* velclient                                                                */
/* ======================================================================= */

void velLifecycle(benchmark::State &state)
{
    for (auto _ : state) {
        velClient_opaqueMsg_pt m = nullptr;
        velClient_msg_alloc(&m);
        velClient_msg_setDestination(m, &kDestination, sizeof kDestination);
        velClient_msg_setBinaryAttachment(m, kAttachment.data(), kSmallAttachment);
        benchmark::DoNotOptimize(m);
        velClient_msg_free(&m);
    }
}

void velFill(velClient_opaqueContainer_pt map, const std::vector<Field> &fields)
{
    for (const Field &f : fields) {
        const char *name = f.name.c_str();
        switch (f.kind) {
        case Kind::Int32: velClient_container_addInt32(map, f.i32, name); break;
        case Kind::Int64: velClient_container_addInt64(map, f.i64, name); break;
        case Kind::String: velClient_container_addString(map, kString, name); break;
        case Kind::Double: velClient_container_addDouble(map, f.d, name); break;
        case Kind::Boolean: velClient_container_addBoolean(map, f.b ? 1 : 0, name); break;
        }
    }
}

/* Builds the map in mem and returns the size of its finalised bytes. */
velClient_uint32_t velBuild(std::vector<char> &mem, const std::vector<Field> &fields, void **bytes)
{
    velClient_opaqueContainer_pt map = nullptr;
    velClient_container_createMap(&map, mem.data(), mem.size());
    velFill(map, fields);
    velClient_uint32_t size = 0;
    velClient_container_getContainerPtr(map, bytes, &size);
    velClient_container_closeMapStream(&map);
    return size;
}

void velBuildMap(benchmark::State &state)
{
    const std::vector<Field> &fields = fieldsFor(state);
    std::vector<char> mem(kBufferSize);
    velClient_uint32_t size = 0;
    for (auto _ : state) {
        void *bytes = nullptr;
        size = velBuild(mem, fields, &bytes);
        benchmark::DoNotOptimize(bytes);
        benchmark::DoNotOptimize(size);
    }
    state.counters["bytes"] = size;
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void velReadMap(benchmark::State &state)
{
    std::vector<char> mem(kBufferSize);
    void *built = nullptr;
    velClient_uint32_t size = velBuild(mem, kFields16, &built);
    std::vector<char> bytes(static_cast<char *>(built), static_cast<char *>(built) + size);
    int reads = 0;
    for (auto _ : state) {
        Sink sink;
        velClient_opaqueContainer_pt map = nullptr;
        velClient_container_openMapFromPtr(&map, bytes.data(), size);
        velClient_int32_t i32 = 0;
        velClient_int64_t i64 = 0;
        const char *s = nullptr;
        double d = 0.0;
        velClient_container_getInt32(map, &i32, kLookups[0].name);
        velClient_container_getInt64(map, &i64, kLookups[1].name);
        velClient_container_getStringPtr(map, &s, kLookups[2].name);
        velClient_container_getDouble(map, &d, kLookups[3].name);
        sink.add(static_cast<std::int64_t>(i32));
        sink.add(static_cast<std::int64_t>(i64));
        sink.add(d);
        sink.add(s, 0);
        velClient_container_rewind(map);
        velClient_field_t f;
        const char *name = nullptr;
        while (velClient_container_getNextField(map, &f, sizeof f, &name) == VELCLIENT_OK) {
            switch (f.type) {
            case VELCLIENT_INT32: sink.add(static_cast<std::int64_t>(f.value.int32)); break;
            case VELCLIENT_INT64: sink.add(static_cast<std::int64_t>(f.value.int64)); break;
            case VELCLIENT_STRING: sink.add(f.value.string, f.length); break;
            case VELCLIENT_DOUBLE: sink.add(f.value.float64); break;
            case VELCLIENT_BOOL: sink.add(static_cast<std::int64_t>(f.value.boolean)); break;
            default: break;
            }
            sink.name(name);
        }
        velClient_container_closeMapStream(&map);
        reads = sink.done();
    }
    expect(state, reads == kReadsPerIteration, "not every field was read");
    state.counters["bytes"] = size;
}

/* Setting the destination again marks the message changed, so each encode
 * builds the image anew instead of handing out the cached one. */
void velWireRoundTrip(benchmark::State &state)
{
    velClient_opaqueMsg_pt m = velbench::makeWireMessage();
    velClient_uint32_t wireSize = 0;
    std::int64_t got = 0;
    for (auto _ : state) {
        velClient_msg_setDestination(m, &kDestination, sizeof kDestination);
        velClient_bufInfo_t info;
        velClient_opaqueDatablock_pt b = nullptr;
        velClient_msg_encodeToVWF(m, &info, &b);
        wireSize = info.bufSize;
        /* The value is checked after the loop; GCC 12 dropped the result of the
         * inlined read when it was also passed to DoNotOptimize's in-out form. */
        got = velbench::decodeAndReadP1(&info);
        velClient_datablock_free(&b);
    }
    expect(state, got == 1, "property p1 was not read back");
    state.counters["bytes"] = wireSize;
    velClient_msg_free(&m);
}

/* W7: a message whose 1 MiB attachment is set by reference, encoded, decoded
 * into a new message whose attachment is read (its first and last bytes),
 * then both messages and the image freed. */
void velLargeRoundTrip(benchmark::State &state)
{
    std::vector<std::uint8_t> body(kHugeAttachment, 0x5A);
    body.back() = 0xA5;
    unsigned got = 0;
    for (auto _ : state) {
        velClient_opaqueMsg_pt m = nullptr;
        velClient_msg_alloc(&m);
        velClient_msg_setBinaryAttachmentPtr(m, body.data(), kHugeAttachment);
        velClient_bufInfo_t info;
        velClient_opaqueDatablock_pt b = nullptr;
        velClient_msg_encodeToVWF(m, &info, &b);
        velClient_opaqueMsg_pt r = nullptr;
        velClient_msg_decodeFromVwf(&info, &r);
        void *read = nullptr;
        velClient_uint32_t size = 0;
        velClient_msg_getBinaryAttachmentPtr(r, &read, &size);
        got = size == kHugeAttachment ? static_cast<unsigned>(static_cast<std::uint8_t *>(read)[0]) +
                                            static_cast<std::uint8_t *>(read)[size - 1]
                                      : 0;
        benchmark::DoNotOptimize(got);
        velClient_msg_free(&r);
        velClient_datablock_free(&b);
        velClient_msg_free(&m);
    }
    expect(state, got == 0x5A + 0xA5, "the attachment was not read back");
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kHugeAttachment));
}

/* The size of velclient's wire image of the W4 message (for the baseline). */
std::size_t velWireSize()
{
    velClient_opaqueMsg_pt m = velbench::makeWireMessage();
    velClient_bufInfo_t info;
    velClient_opaqueDatablock_pt b = nullptr;
    velClient_msg_encodeToVWF(m, &info, &b);
    std::size_t size = info.bufSize;
    velClient_datablock_free(&b);
    velClient_msg_free(&m);
    return size;
}

/* ======================================================================= */
/* Baseline: malloc, memcpy, free                                           */
/* ======================================================================= */

void mallocLifecycle(benchmark::State &state)
{
    for (auto _ : state) {
        void *p = std::malloc(kSmallAttachment);
        std::memcpy(p, kAttachment.data(), kSmallAttachment);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}

/* The least a map encoder can do: each field as [name length][name][kind]
 * [value] copied into a flat buffer, no checks. */
std::size_t flatBuild(std::uint8_t *out, const std::vector<Field> &fields)
{
    std::uint8_t *p = out;
    for (const Field &f : fields) {
        const std::size_t n = f.name.size();
        *p++ = static_cast<std::uint8_t>(n);
        std::memcpy(p, f.name.data(), n);
        p += n;
        *p++ = static_cast<std::uint8_t>(f.kind);
        switch (f.kind) {
        case Kind::Int32: std::memcpy(p, &f.i32, 4); p += 4; break;
        case Kind::Int64: std::memcpy(p, &f.i64, 8); p += 8; break;
        case Kind::String: *p++ = static_cast<std::uint8_t>(kStringLen); std::memcpy(p, kString, kStringLen); p += kStringLen; break;
        case Kind::Double: std::memcpy(p, &f.d, 8); p += 8; break;
        case Kind::Boolean: *p++ = f.b ? 1 : 0; break;
        }
    }
    return static_cast<std::size_t>(p - out);
}

void memcpyBuildMap(benchmark::State &state)
{
    const std::vector<Field> &fields = fieldsFor(state);
    std::vector<std::uint8_t> buf(kBufferSize);
    std::size_t size = 0;
    for (auto _ : state) {
        size = flatBuild(buf.data(), fields);
        benchmark::DoNotOptimize(buf.data());
        benchmark::DoNotOptimize(size);
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(size);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

/* One flat record: where its name and value are and where the next starts. */
struct FlatRecord {
    const std::uint8_t *name;
    std::size_t nameLen;
    Kind kind;
    const std::uint8_t *value;
    std::size_t valueLen;
    const std::uint8_t *next;
};

FlatRecord flatAt(const std::uint8_t *p)
{
    FlatRecord r{};
    r.nameLen = *p++;
    r.name = p;
    p += r.nameLen;
    r.kind = static_cast<Kind>(*p++);
    switch (r.kind) {
    case Kind::Int32: r.valueLen = 4; break;
    case Kind::Int64: case Kind::Double: r.valueLen = 8; break;
    case Kind::String: r.valueLen = *p++; break;
    case Kind::Boolean: r.valueLen = 1; break;
    }
    r.value = p;
    r.next = p + r.valueLen;
    return r;
}

void flatRead(const FlatRecord &r, Sink &sink)
{
    switch (r.kind) {
    case Kind::Int32: { std::int32_t v; std::memcpy(&v, r.value, 4); sink.add(static_cast<std::int64_t>(v)); break; }
    case Kind::Int64: { std::int64_t v; std::memcpy(&v, r.value, 8); sink.add(v); break; }
    case Kind::String: sink.add(reinterpret_cast<const char *>(r.value), r.valueLen); break;
    case Kind::Double: { double v; std::memcpy(&v, r.value, 8); sink.add(v); break; }
    case Kind::Boolean: sink.add(static_cast<std::int64_t>(*r.value)); break;
    }
}

void memcpyReadMap(benchmark::State &state)
{
    std::vector<std::uint8_t> buf(kBufferSize);
    const std::size_t size = flatBuild(buf.data(), kFields16);
    const std::uint8_t *end = buf.data() + size;
    int reads = 0;
    for (auto _ : state) {
        Sink sink;
        for (const Lookup &l : kLookups) {
            for (const std::uint8_t *p = buf.data(); p < end;) {
                FlatRecord r = flatAt(p);
                if (r.nameLen == l.len && std::memcmp(r.name, l.name, l.len) == 0) {
                    flatRead(r, sink);
                    break;
                }
                p = r.next;
            }
        }
        for (const std::uint8_t *p = buf.data(); p < end;) {
            FlatRecord r = flatAt(p);
            sink.name(reinterpret_cast<const char *>(r.name));
            flatRead(r, sink);
            p = r.next;
        }
        reads = sink.done();
    }
    expect(state, reads == kReadsPerIteration, "not every field was read");
    state.counters["bytes"] = static_cast<double>(size);
}

/* Round trip of velclient's wire size: malloc + memcpy out, malloc + memcpy
 * back in, read 4 bytes, free both. */
void mallocWireRoundTrip(benchmark::State &state)
{
    const std::size_t size = velWireSize();
    std::vector<std::uint8_t> image(size, 0x11);
    for (auto _ : state) {
        auto *out = static_cast<std::uint8_t *>(std::malloc(size));
        std::memcpy(out, image.data(), size);
        benchmark::DoNotOptimize(out);
        auto *in = static_cast<std::uint8_t *>(std::malloc(size));
        std::memcpy(in, out, size);
        benchmark::DoNotOptimize(in);
        std::int32_t v;
        std::memcpy(&v, in + 40, 4);
        benchmark::DoNotOptimize(v);
        std::free(in);
        std::free(out);
    }
    state.counters["bytes"] = static_cast<double>(size);
}

/* W7's least: the 1 MiB copied out of the application's buffer into a wire
 * image and out of that into a received one, both buffers made once. */
void memcpyLargeRoundTrip(benchmark::State &state)
{
    std::vector<std::uint8_t> body(kHugeAttachment, 0x5A);
    std::vector<std::uint8_t> wire(kHugeAttachment);
    std::vector<std::uint8_t> received(kHugeAttachment);
    for (auto _ : state) {
        std::memcpy(wire.data(), body.data(), kHugeAttachment);
        benchmark::ClobberMemory();
        std::memcpy(received.data(), wire.data(), kHugeAttachment);
        benchmark::DoNotOptimize(received.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kHugeAttachment));
}

/* ======================================================================= */
/* msgpack-c                                                                */
/* ======================================================================= */
#if VEL_HAVE_MSGPACK

void mpPackStr(msgpack_packer *pk, const char *s, std::size_t n)
{
    msgpack_pack_str(pk, n);
    msgpack_pack_str_body(pk, s, n);
}

void msgpackLifecycle(benchmark::State &state)
{
    for (auto _ : state) {
        msgpack_sbuffer sbuf;
        msgpack_sbuffer_init(&sbuf);
        msgpack_packer pk;
        msgpack_packer_init(&pk, &sbuf, msgpack_sbuffer_write);
        msgpack_pack_map(&pk, 2);
        mpPackStr(&pk, "topic", 5);
        mpPackStr(&pk, kTopic, kTopicLen);
        mpPackStr(&pk, "body", 4);
        msgpack_pack_bin(&pk, kSmallAttachment);
        msgpack_pack_bin_body(&pk, kAttachment.data(), kSmallAttachment);
        benchmark::DoNotOptimize(sbuf.data);
        msgpack_sbuffer_destroy(&sbuf);
    }
}

void mpFill(msgpack_packer *pk, const std::vector<Field> &fields)
{
    msgpack_pack_map(pk, fields.size());
    for (const Field &f : fields) {
        mpPackStr(pk, f.name.data(), f.name.size());
        switch (f.kind) {
        case Kind::Int32: msgpack_pack_int32(pk, f.i32); break;
        case Kind::Int64: msgpack_pack_int64(pk, f.i64); break;
        case Kind::String: mpPackStr(pk, kString, kStringLen); break;
        case Kind::Double: msgpack_pack_double(pk, f.d); break;
        case Kind::Boolean: if (f.b) msgpack_pack_true(pk); else msgpack_pack_false(pk); break;
        }
    }
}

void msgpackBuildMap(benchmark::State &state)
{
    const std::vector<Field> &fields = fieldsFor(state);
    msgpack_sbuffer sbuf;
    msgpack_sbuffer_init(&sbuf);
    msgpack_packer pk;
    msgpack_packer_init(&pk, &sbuf, msgpack_sbuffer_write);
    for (auto _ : state) {
        msgpack_sbuffer_clear(&sbuf);
        mpFill(&pk, fields);
        benchmark::DoNotOptimize(sbuf.data);
        benchmark::DoNotOptimize(sbuf.size);
    }
    state.counters["bytes"] = static_cast<double>(sbuf.size);
    state.SetItemsProcessed(state.iterations() * state.range(0));
    msgpack_sbuffer_destroy(&sbuf);
}

bool mpKeyIs(const msgpack_object &key, const char *name, std::size_t len)
{
    return key.type == MSGPACK_OBJECT_STR && key.via.str.size == len && std::memcmp(key.via.str.ptr, name, len) == 0;
}

const msgpack_object *mpFind(const msgpack_object &map, const char *name, std::size_t len)
{
    for (std::uint32_t i = 0; i < map.via.map.size; ++i)
        if (mpKeyIs(map.via.map.ptr[i].key, name, len))
            return &map.via.map.ptr[i].val;
    return nullptr;
}

void mpRead(const msgpack_object &v, Sink &sink)
{
    switch (v.type) {
    case MSGPACK_OBJECT_POSITIVE_INTEGER: sink.add(static_cast<std::int64_t>(v.via.u64)); break;
    case MSGPACK_OBJECT_NEGATIVE_INTEGER: sink.add(v.via.i64); break;
    case MSGPACK_OBJECT_STR: sink.add(v.via.str.ptr, v.via.str.size); break;
    case MSGPACK_OBJECT_FLOAT64: sink.add(v.via.f64); break;
    case MSGPACK_OBJECT_BOOLEAN: sink.add(static_cast<std::int64_t>(v.via.boolean)); break;
    default: break;
    }
}

void msgpackReadMap(benchmark::State &state)
{
    msgpack_sbuffer sbuf;
    msgpack_sbuffer_init(&sbuf);
    msgpack_packer pk;
    msgpack_packer_init(&pk, &sbuf, msgpack_sbuffer_write);
    mpFill(&pk, kFields16);
    int reads = 0;
    for (auto _ : state) {
        Sink sink;
        msgpack_unpacked result;
        msgpack_unpacked_init(&result);
        std::size_t off = 0;
        msgpack_unpack_next(&result, sbuf.data, sbuf.size, &off);
        const msgpack_object &map = result.data;
        for (const Lookup &l : kLookups)
            if (const msgpack_object *v = mpFind(map, l.name, l.len))
                mpRead(*v, sink);
        for (std::uint32_t i = 0; i < map.via.map.size; ++i) {
            const msgpack_object_kv &kv = map.via.map.ptr[i];
            sink.name(kv.key.via.str.ptr);
            mpRead(kv.val, sink);
        }
        msgpack_unpacked_destroy(&result);
        reads = sink.done();
    }
    expect(state, reads == kReadsPerIteration, "not every field was read");
    state.counters["bytes"] = static_cast<double>(sbuf.size);
    msgpack_sbuffer_destroy(&sbuf);
}

/* {topic, props: {p1, p2, p3, p4}, body} into the reused buffer, then
 * unpacked and props.p1 read. */
void msgpackWireRoundTrip(benchmark::State &state)
{
    msgpack_sbuffer sbuf;
    msgpack_sbuffer_init(&sbuf);
    msgpack_packer pk;
    msgpack_packer_init(&pk, &sbuf, msgpack_sbuffer_write);
    std::int64_t got = 0;
    for (auto _ : state) {
        msgpack_sbuffer_clear(&sbuf);
        msgpack_pack_map(&pk, 3);
        mpPackStr(&pk, "topic", 5);
        mpPackStr(&pk, kTopic, kTopicLen);
        mpPackStr(&pk, "props", 5);
        msgpack_pack_map(&pk, 4);
        mpPackStr(&pk, "p1", 2);
        msgpack_pack_int32(&pk, 1);
        mpPackStr(&pk, "p2", 2);
        msgpack_pack_int64(&pk, 2);
        mpPackStr(&pk, "p3", 2);
        mpPackStr(&pk, "value", 5);
        mpPackStr(&pk, "p4", 2);
        msgpack_pack_true(&pk);
        mpPackStr(&pk, "body", 4);
        msgpack_pack_bin(&pk, kLargeAttachment);
        msgpack_pack_bin_body(&pk, kAttachment.data(), kLargeAttachment);

        msgpack_unpacked result;
        msgpack_unpacked_init(&result);
        std::size_t off = 0;
        msgpack_unpack_next(&result, sbuf.data, sbuf.size, &off);
        std::int64_t v = 0;
        if (const msgpack_object *props = mpFind(result.data, "props", 5))
            if (const msgpack_object *p1 = mpFind(*props, "p1", 2))
                v = p1->via.i64;
        benchmark::DoNotOptimize(v);
        got = v;
        msgpack_unpacked_destroy(&result);
    }
    expect(state, got == 1, "property p1 was not read back");
    state.counters["bytes"] = static_cast<double>(sbuf.size);
    msgpack_sbuffer_destroy(&sbuf);
}

#endif /* VEL_HAVE_MSGPACK */

/* ======================================================================= */
/* Qpid Proton-C                                                            */
/* ======================================================================= */
#if VEL_HAVE_PROTON

pn_bytes_t pnStr(const char *s, std::size_t n) { return pn_bytes(n, s); }

void protonLifecycle(benchmark::State &state)
{
    for (auto _ : state) {
        pn_message_t *m = pn_message();
        pn_message_set_address(m, kTopic);
        pn_data_put_binary(pn_message_body(m),
                           pn_bytes(kSmallAttachment, reinterpret_cast<const char *>(kAttachment.data())));
        benchmark::DoNotOptimize(m);
        pn_message_free(m);
    }
}

void pnFill(pn_data_t *d, const std::vector<Field> &fields)
{
    pn_data_put_map(d);
    pn_data_enter(d);
    for (const Field &f : fields) {
        pn_data_put_string(d, pnStr(f.name.data(), f.name.size()));
        switch (f.kind) {
        case Kind::Int32: pn_data_put_int(d, f.i32); break;
        case Kind::Int64: pn_data_put_long(d, f.i64); break;
        case Kind::String: pn_data_put_string(d, pnStr(kString, kStringLen)); break;
        case Kind::Double: pn_data_put_double(d, f.d); break;
        case Kind::Boolean: pn_data_put_bool(d, f.b); break;
        }
    }
    pn_data_exit(d);
}

void protonBuildMap(benchmark::State &state)
{
    const std::vector<Field> &fields = fieldsFor(state);
    pn_data_t *d = pn_data(0);
    std::vector<char> buf(kBufferSize);
    ssize_t size = 0;
    for (auto _ : state) {
        pn_data_clear(d);
        pnFill(d, fields);
        size = pn_data_encode(d, buf.data(), buf.size());
        benchmark::DoNotOptimize(buf.data());
        benchmark::DoNotOptimize(size);
    }
    state.counters["bytes"] = static_cast<double>(size);
    state.SetItemsProcessed(state.iterations() * state.range(0));
    pn_data_free(d);
}

/* Leaves the cursor on the value of key name in the map at the top of d. */
bool pnFind(pn_data_t *d, const char *name, std::size_t len)
{
    pn_data_rewind(d);
    if (!pn_data_next(d) || !pn_data_enter(d))
        return false;
    while (pn_data_next(d)) {
        pn_bytes_t key = pn_data_get_string(d);
        if (!pn_data_next(d))
            return false;
        if (key.size == len && std::memcmp(key.start, name, len) == 0)
            return true;
    }
    return false;
}

void pnRead(pn_data_t *d, Sink &sink)
{
    switch (pn_data_type(d)) {
    case PN_INT: sink.add(static_cast<std::int64_t>(pn_data_get_int(d))); break;
    case PN_LONG: sink.add(pn_data_get_long(d)); break;
    case PN_STRING: { pn_bytes_t s = pn_data_get_string(d); sink.add(s.start, s.size); break; }
    case PN_DOUBLE: sink.add(pn_data_get_double(d)); break;
    case PN_BOOL: sink.add(static_cast<std::int64_t>(pn_data_get_bool(d))); break;
    default: break;
    }
}

void protonReadMap(benchmark::State &state)
{
    pn_data_t *src = pn_data(0);
    pnFill(src, kFields16);
    std::vector<char> bytes(kBufferSize);
    const ssize_t size = pn_data_encode(src, bytes.data(), bytes.size());
    pn_data_free(src);
    pn_data_t *d = pn_data(0);
    int reads = 0;
    for (auto _ : state) {
        Sink sink;
        pn_data_clear(d);
        pn_data_decode(d, bytes.data(), static_cast<std::size_t>(size));
        for (const Lookup &l : kLookups)
            if (pnFind(d, l.name, l.len))
                pnRead(d, sink);
        pn_data_rewind(d);
        pn_data_next(d);
        pn_data_enter(d);
        while (pn_data_next(d)) {
            pn_bytes_t key = pn_data_get_string(d);
            sink.name(key.start);
            pn_data_next(d);
            pnRead(d, sink);
        }
        reads = sink.done();
    }
    expect(state, reads == kReadsPerIteration, "not every field was read");
    state.counters["bytes"] = static_cast<double>(size);
    pn_data_free(d);
}

/* The message is built once; each encode is fresh (proton keeps no image),
 * the topic is set again as velclient's is, and each decode goes into a new
 * pn_message_t. */
void protonWireRoundTrip(benchmark::State &state)
{
    pn_message_t *m = pn_message();
    pn_message_set_address(m, kTopic);
    pn_data_t *props = pn_message_properties(m);
    pn_data_put_map(props);
    pn_data_enter(props);
    pn_data_put_string(props, pnStr("p1", 2));
    pn_data_put_int(props, 1);
    pn_data_put_string(props, pnStr("p2", 2));
    pn_data_put_long(props, 2);
    pn_data_put_string(props, pnStr("p3", 2));
    pn_data_put_string(props, pnStr("value", 5));
    pn_data_put_string(props, pnStr("p4", 2));
    pn_data_put_bool(props, true);
    pn_data_exit(props);
    pn_data_put_binary(pn_message_body(m),
                       pn_bytes(kLargeAttachment, reinterpret_cast<const char *>(kAttachment.data())));
    std::vector<char> buf(kBufferSize);
    std::size_t wireSize = 0;
    std::int64_t got = 0;
    for (auto _ : state) {
        pn_message_set_address(m, kTopic);
        std::size_t size = buf.size();
        pn_message_encode(m, buf.data(), &size);
        wireSize = size;
        pn_message_t *r = pn_message();
        pn_message_decode(r, buf.data(), size);
        std::int32_t v = 0;
        if (pnFind(pn_message_properties(r), "p1", 2))
            v = pn_data_get_int(pn_message_properties(r));
        benchmark::DoNotOptimize(v);
        got = v;
        pn_message_free(r);
    }
    expect(state, got == 1, "property p1 was not read back");
    state.counters["bytes"] = static_cast<double>(wireSize);
    pn_message_free(m);
}

#endif /* VEL_HAVE_PROTON */

/* ======================================================================= */
/* libbson                                                                  */
/* ======================================================================= */
#if VEL_HAVE_BSON

void bsonLifecycle(benchmark::State &state)
{
    for (auto _ : state) {
        bson_t doc;
        bson_init(&doc);
        bson_append_utf8(&doc, "topic", 5, kTopic, static_cast<int>(kTopicLen));
        bson_append_binary(&doc, "body", 4, BSON_SUBTYPE_BINARY, kAttachment.data(),
                           static_cast<std::uint32_t>(kSmallAttachment));
        benchmark::DoNotOptimize(bson_get_data(&doc));
        bson_destroy(&doc);
    }
}

void bsonFill(bson_t *doc, const std::vector<Field> &fields)
{
    for (const Field &f : fields) {
        const char *name = f.name.data();
        const int n = static_cast<int>(f.name.size());
        switch (f.kind) {
        case Kind::Int32: bson_append_int32(doc, name, n, f.i32); break;
        case Kind::Int64: bson_append_int64(doc, name, n, f.i64); break;
        case Kind::String: bson_append_utf8(doc, name, n, kString, static_cast<int>(kStringLen)); break;
        case Kind::Double: bson_append_double(doc, name, n, f.d); break;
        case Kind::Boolean: bson_append_bool(doc, name, n, f.b); break;
        }
    }
}

/* bson_reinit keeps the document's buffer from one iteration to the next. */
void bsonBuildMap(benchmark::State &state)
{
    const std::vector<Field> &fields = fieldsFor(state);
    bson_t doc;
    bson_init(&doc);
    for (auto _ : state) {
        bson_reinit(&doc);
        bsonFill(&doc, fields);
        benchmark::DoNotOptimize(bson_get_data(&doc));
        benchmark::DoNotOptimize(doc.len);
    }
    state.counters["bytes"] = doc.len;
    state.SetItemsProcessed(state.iterations() * state.range(0));
    bson_destroy(&doc);
}

void bsonRead(const bson_iter_t *it, Sink &sink)
{
    switch (bson_iter_type(it)) {
    case BSON_TYPE_INT32: sink.add(static_cast<std::int64_t>(bson_iter_int32(it))); break;
    case BSON_TYPE_INT64: sink.add(bson_iter_int64(it)); break;
    case BSON_TYPE_UTF8: { std::uint32_t n = 0; const char *s = bson_iter_utf8(it, &n); sink.add(s, n); break; }
    case BSON_TYPE_DOUBLE: sink.add(bson_iter_double(it)); break;
    case BSON_TYPE_BOOL: sink.add(static_cast<std::int64_t>(bson_iter_bool(it))); break;
    default: break;
    }
}

void bsonReadMap(benchmark::State &state)
{
    bson_t src;
    bson_init(&src);
    bsonFill(&src, kFields16);
    std::vector<std::uint8_t> bytes(bson_get_data(&src), bson_get_data(&src) + src.len);
    bson_destroy(&src);
    int reads = 0;
    for (auto _ : state) {
        Sink sink;
        bson_t doc;
        bson_init_static(&doc, bytes.data(), bytes.size());
        bson_iter_t it;
        for (const Lookup &l : kLookups)
            if (bson_iter_init_find(&it, &doc, l.name))
                bsonRead(&it, sink);
        if (bson_iter_init(&it, &doc)) {
            while (bson_iter_next(&it)) {
                sink.name(bson_iter_key(&it));
                bsonRead(&it, sink);
            }
        }
        reads = sink.done();
    }
    expect(state, reads == kReadsPerIteration, "not every field was read");
    state.counters["bytes"] = static_cast<double>(bytes.size());
}

/* {topic, props: {p1, p2, p3, p4}, body} into the reused document, then
 * read back from its bytes: props.p1. */
void bsonWireRoundTrip(benchmark::State &state)
{
    bson_t doc;
    bson_init(&doc);
    std::int64_t got = 0;
    for (auto _ : state) {
        bson_reinit(&doc);
        bson_append_utf8(&doc, "topic", 5, kTopic, static_cast<int>(kTopicLen));
        bson_t props;
        bson_append_document_begin(&doc, "props", 5, &props);
        bson_append_int32(&props, "p1", 2, 1);
        bson_append_int64(&props, "p2", 2, 2);
        bson_append_utf8(&props, "p3", 2, "value", 5);
        bson_append_bool(&props, "p4", 2, true);
        bson_append_document_end(&doc, &props);
        bson_append_binary(&doc, "body", 4, BSON_SUBTYPE_BINARY, kAttachment.data(),
                           static_cast<std::uint32_t>(kLargeAttachment));

        bson_t in;
        bson_init_static(&in, bson_get_data(&doc), doc.len);
        bson_iter_t it, child;
        std::int32_t v = 0;
        if (bson_iter_init_find(&it, &in, "props") && bson_iter_recurse(&it, &child) &&
            bson_iter_find(&child, "p1"))
            v = bson_iter_int32(&child);
        benchmark::DoNotOptimize(v);
        got = v;
    }
    expect(state, got == 1, "property p1 was not read back");
    state.counters["bytes"] = doc.len;
    bson_destroy(&doc);
}

#endif /* VEL_HAVE_BSON */

/* ======================================================================= */
/* Registration                                                             */
/* ======================================================================= */

using BenchFn = void (*)(benchmark::State &);

struct Peer {
    const char *name;
    const char *mapName; /* the name in W2 and W3 */
    BenchFn lifecycle;
    BenchFn buildMap;
    BenchFn readMap;
    BenchFn wireRoundTrip;
};

int registerAll()
{
    const std::vector<Peer> peers = {
        {"velclient", "velclient", velLifecycle, velBuildMap, velReadMap, velWireRoundTrip},
#if VEL_HAVE_MSGPACK
        {"msgpack", "msgpack", msgpackLifecycle, msgpackBuildMap, msgpackReadMap, msgpackWireRoundTrip},
#endif
#if VEL_HAVE_PROTON
        {"proton", "proton", protonLifecycle, protonBuildMap, protonReadMap, protonWireRoundTrip},
#endif
#if VEL_HAVE_BSON
        {"bson", "bson", bsonLifecycle, bsonBuildMap, bsonReadMap, bsonWireRoundTrip},
#endif
        {"malloc", "memcpy", mallocLifecycle, memcpyBuildMap, memcpyReadMap, mallocWireRoundTrip},
    };
    const auto name = [](const char *workload, const char *peer) { return std::string(workload) + "/" + peer; };
    for (const Peer &p : peers)
        benchmark::RegisterBenchmark(name("BM_W1_Lifecycle", p.name).c_str(), p.lifecycle);
    for (const Peer &p : peers)
        benchmark::RegisterBenchmark(name("BM_W2_BuildMap", p.mapName).c_str(), p.buildMap)->Arg(16)->Arg(256);
    for (const Peer &p : peers)
        benchmark::RegisterBenchmark(name("BM_W3_ReadMap", p.mapName).c_str(), p.readMap);
    for (const Peer &p : peers)
        benchmark::RegisterBenchmark(name("BM_W4_WireRoundTrip", p.name).c_str(), p.wireRoundTrip);
    for (const Peer &p : peers)
        benchmark::RegisterBenchmark(name("BM_W5_LifecycleThreads", p.name).c_str(), p.lifecycle)
            ->Threads(1)
            ->Threads(2)
            ->UseRealTime();
    benchmark::RegisterBenchmark("BM_W7_LargeRoundTrip/velclient", velLargeRoundTrip);
    benchmark::RegisterBenchmark("BM_W7_LargeRoundTrip/memcpy", memcpyLargeRoundTrip);
    return 0;
}

const int kRegistered = registerAll();

} // namespace

VEL_BENCHMARK_MAIN()
