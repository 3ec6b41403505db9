/*
 * The box codec beside protobuf and msgpack: the stream command (seven asks and seven sets, nested)
 * encoded and decoded, and boxes of 1 to 100 four-byte records.
 *
 * Every round starts from plain values and ends with them, so each side pays for its own objects,
 * buffers and lookups. A box and a msgpack map are asked for each field by its type, since neither
 * promises an order; protobuf has accessors.
 */
#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include <benchmark/benchmark.h>
#include <msgpack.hpp>

#include "tlv/tlv_box.h"
#include "tlv_bench.pb.h"

namespace
{
constexpr int kFields = 7;
constexpr int kMode = 2; /* the one field that is set by a text */
constexpr std::uint32_t kStreamCommand = 4;
constexpr std::uint32_t kAsk = 0x10001;
constexpr std::uint32_t kSet = 0x10002;
constexpr std::uint32_t kStep = 0x10000;
constexpr std::array<int, kFields> kValues = {1, 30, 0, 2000000, 1, 540, 5};

struct DECODED_S {
    std::array<bool, kFields> bAsked;
    std::array<int, kFields> s32Values;
};

/* A decoder that loses a field must not win. */
void Check(benchmark::State &io_objState, const DECODED_S &i_stDecoded)
{
    for (int i = 0; i < kFields; i++) {
        const auto u64Index = static_cast<std::size_t>(i);
        if (!i_stDecoded.bAsked[u64Index] || i_stDecoded.s32Values[u64Index] != kValues[u64Index]) {
            io_objState.SkipWithError("decoded wrongly");
        }
    }
}

int ModeNumber(std::string_view i_objText)
{
    return i_objText == "cbr" ? 0 : 1;
}

std::string EncodeTlv()
{
    tlv_box *pNested = tlv_box_create();
    for (int i = 0; i < kFields; i++) {
        tlv_box_put_int(pNested, kAsk + static_cast<std::uint32_t>(i) * kStep, 1);
    }
    for (int i = 0; i < kFields; i++) {
        const std::uint32_t u32Type = kSet + static_cast<std::uint32_t>(i) * kStep;
        if (i == kMode) {
            tlv_box_put_string(pNested, u32Type, "cbr");
        } else {
            tlv_box_put_int(pNested, u32Type, kValues[static_cast<std::size_t>(i)]);
        }
    }
    tlv_box_serialize(pNested);
    tlv_box *pOuter = tlv_box_create();
    tlv_box_put_object(pOuter, kStreamCommand, pNested);
    tlv_box_serialize(pOuter);
    std::string strBytes(reinterpret_cast<const char *>(tlv_box_get_buffer(pOuter)),
                         static_cast<std::size_t>(tlv_box_get_size(pOuter)));
    tlv_box_destroy(pNested);
    tlv_box_destroy(pOuter);
    return strBytes;
}

DECODED_S DecodeTlv(const std::string &i_strBytes)
{
    DECODED_S stDecoded = {};
    tlv_box *pOuter = tlv_box_parse(i_strBytes.data(), static_cast<int>(i_strBytes.size()));
    tlv_box *pNested = nullptr;
    tlv_box_get_object(pOuter, kStreamCommand, &pNested);
    for (std::uint32_t i = 0; i < kFields; i++) {
        stDecoded.bAsked[i] = tlv_box_get_node(pNested, kAsk + i * kStep) != nullptr;
    }
    for (std::uint32_t i = 0; i < kFields; i++) {
        if (i == kMode) {
            char szMode[128];
            int s32Length = sizeof(szMode);
            tlv_box_get_string(pNested, kSet + i * kStep, szMode, &s32Length);
            stDecoded.s32Values[i] = ModeNumber(szMode);
        } else {
            tlv_box_get_int(pNested, kSet + i * kStep, &stDecoded.s32Values[i]);
        }
    }
    tlv_box_destroy(pNested);
    tlv_box_destroy(pOuter);
    return stDecoded;
}

std::string EncodeProtobuf()
{
    reference::Request objRequest;
    reference::StreamCommand &objCommand = *objRequest.mutable_command();
    objCommand.set_ask_h264_enable(true);
    objCommand.set_ask_gop(true);
    objCommand.set_ask_mode(true);
    objCommand.set_ask_bitrate(true);
    objCommand.set_ask_preview_enable(true);
    objCommand.set_ask_height(true);
    objCommand.set_ask_refreshrate(true);
    objCommand.set_h264_enable(kValues[0]);
    objCommand.set_gop(kValues[1]);
    objCommand.set_mode("cbr");
    objCommand.set_bitrate(kValues[3]);
    objCommand.set_preview_enable(kValues[4]);
    objCommand.set_height(kValues[5]);
    objCommand.set_refreshrate(kValues[6]);
    return objRequest.SerializeAsString();
}

DECODED_S DecodeProtobuf(const std::string &i_strBytes)
{
    reference::Request objRequest;
    objRequest.ParseFromString(i_strBytes);
    const reference::StreamCommand &objCommand = objRequest.command();
    return {{objCommand.ask_h264_enable(), objCommand.ask_gop(), objCommand.ask_mode(),
             objCommand.ask_bitrate(), objCommand.ask_preview_enable(), objCommand.ask_height(),
             objCommand.ask_refreshrate()},
            {objCommand.h264_enable(), objCommand.gop(), ModeNumber(objCommand.mode()),
             objCommand.bitrate(), objCommand.preview_enable(), objCommand.height(),
             objCommand.refreshrate()}};
}

/* The same fields as pairs of type and value, the box's own shape in msgpack's terms. */
std::string EncodeMsgpack()
{
    msgpack::sbuffer objBuffer;
    msgpack::packer<msgpack::sbuffer> objPacker(objBuffer);
    objPacker.pack_map(1);
    objPacker.pack(kStreamCommand);
    objPacker.pack_map(2 * kFields);
    for (std::uint32_t i = 0; i < kFields; i++) {
        objPacker.pack(kAsk + i * kStep);
        objPacker.pack(1);
    }
    for (std::uint32_t i = 0; i < kFields; i++) {
        objPacker.pack(kSet + i * kStep);
        if (i == kMode) {
            objPacker.pack("cbr");
        } else {
            objPacker.pack(kValues[i]);
        }
    }
    return {objBuffer.data(), objBuffer.size()};
}

/* Checked access throughout: like a box's, the bytes are somebody else's. */
const msgpack::object *FindMsgpack(const msgpack::object &i_objMap, std::uint32_t i_u32Type)
{
    if (i_objMap.type != msgpack::type::MAP) {
        throw msgpack::type_error();
    }
    for (const msgpack::object_kv &stPair : i_objMap.via.map) {
        if (stPair.key.as<std::uint32_t>() == i_u32Type) {
            return &stPair.val;
        }
    }
    return nullptr;
}

DECODED_S DecodeMsgpack(const std::string &i_strBytes)
{
    DECODED_S stDecoded = {};
    const msgpack::object_handle objHandle = msgpack::unpack(i_strBytes.data(), i_strBytes.size());
    const msgpack::object *pNested = FindMsgpack(objHandle.get(), kStreamCommand);
    for (std::uint32_t i = 0; i < kFields; i++) {
        stDecoded.bAsked[i] = FindMsgpack(*pNested, kAsk + i * kStep) != nullptr;
    }
    for (std::uint32_t i = 0; i < kFields; i++) {
        const msgpack::object *pValue = FindMsgpack(*pNested, kSet + i * kStep);
        if (i == kMode) {
            stDecoded.s32Values[i] = ModeNumber(pValue->as<std::string_view>());
        } else {
            stDecoded.s32Values[i] = pValue->as<int>();
        }
    }
    return stDecoded;
}

template <std::string (*Encode)(), DECODED_S (*Decode)(const std::string &)>
void StreamCommand(benchmark::State &io_objState)
{
    Check(io_objState, Decode(Encode()));
    for (auto objRound : io_objState) {
        const DECODED_S stDecoded = Decode(Encode());
        benchmark::DoNotOptimize(stDecoded);
    }
}
BENCHMARK(StreamCommand<EncodeTlv, DecodeTlv>)->Name("stream_command/ours");
BENCHMARK(StreamCommand<EncodeProtobuf, DecodeProtobuf>)->Name("stream_command/protobuf");
BENCHMARK(StreamCommand<EncodeMsgpack, DecodeMsgpack>)->Name("stream_command/msgpack");

template <std::string (*Encode)()> void StreamCommandEncode(benchmark::State &io_objState)
{
    for (auto objRound : io_objState) {
        benchmark::DoNotOptimize(Encode());
    }
}
BENCHMARK(StreamCommandEncode<EncodeTlv>)->Name("stream_command_encode/ours");
BENCHMARK(StreamCommandEncode<EncodeProtobuf>)->Name("stream_command_encode/protobuf");
BENCHMARK(StreamCommandEncode<EncodeMsgpack>)->Name("stream_command_encode/msgpack");

constexpr int kMostRecords = 100;

/* The order of the types makes no difference: a box compares a new one with all it has. */
std::uint32_t BoxType(int i_s32Index)
{
    return static_cast<std::uint32_t>(i_s32Index) + 1;
}

std::string EncodeBoxTlv(int i_s32Records)
{
    tlv_box *pBox = tlv_box_create();
    for (int i = 0; i < i_s32Records; i++) {
        tlv_box_put_int(pBox, BoxType(i), i);
    }
    tlv_box_serialize(pBox);
    std::string strBytes(reinterpret_cast<const char *>(tlv_box_get_buffer(pBox)),
                         static_cast<std::size_t>(tlv_box_get_size(pBox)));
    tlv_box_destroy(pBox);
    return strBytes;
}

std::string EncodeBoxProtobuf(int i_s32Records)
{
    reference::Box objBox;
    for (int i = 0; i < i_s32Records; i++) {
        reference::Record &objRecord = *objBox.add_records();
        objRecord.set_type(BoxType(i));
        objRecord.set_value(&i, sizeof(i));
    }
    return objBox.SerializeAsString();
}

std::string EncodeBoxMsgpack(int i_s32Records)
{
    msgpack::sbuffer objBuffer;
    msgpack::packer<msgpack::sbuffer> objPacker(objBuffer);
    objPacker.pack_map(static_cast<std::uint32_t>(i_s32Records));
    for (int i = 0; i < i_s32Records; i++) {
        objPacker.pack(BoxType(i));
        objPacker.pack_bin(sizeof(i));
        objPacker.pack_bin_body(reinterpret_cast<const char *>(&i), sizeof(i));
    }
    return {objBuffer.data(), objBuffer.size()};
}

/* Decoding makes the records reachable; looking all of them up is not part of it. */
void DecodeBoxTlv(const std::string &i_strBytes)
{
    tlv_box *pBox = tlv_box_parse(i_strBytes.data(), static_cast<int>(i_strBytes.size()));
    benchmark::DoNotOptimize(tlv_box_get_node(pBox, 1));
    tlv_box_destroy(pBox);
}

void DecodeBoxProtobuf(const std::string &i_strBytes)
{
    reference::Box objBox;
    objBox.ParseFromString(i_strBytes);
    benchmark::DoNotOptimize(objBox.records(0).type());
}

void DecodeBoxMsgpack(const std::string &i_strBytes)
{
    const msgpack::object_handle objHandle = msgpack::unpack(i_strBytes.data(), i_strBytes.size());
    benchmark::DoNotOptimize(objHandle.get().via.map.ptr[0].key.via.u64);
}

template <std::string (*Encode)(int)> void BoxEncode(benchmark::State &io_objState)
{
    for (auto objRound : io_objState) {
        benchmark::DoNotOptimize(Encode(static_cast<int>(io_objState.range(0))));
    }
}
template <std::string (*Encode)(int), void (*Decode)(const std::string &)>
void BoxDecode(benchmark::State &io_objState)
{
    const std::string strBytes = Encode(static_cast<int>(io_objState.range(0)));
    for (auto objRound : io_objState) {
        Decode(strBytes);
    }
}

#define BOX_BENCHMARK(function, name)                                                              \
    BENCHMARK(function)->Name(name)->RangeMultiplier(10)->Range(1, kMostRecords)
#define BOX_BENCHMARKS(encode, decode, side)                                                       \
    BOX_BENCHMARK(BoxEncode<encode>, "box_encode/" side);                                          \
    BOX_BENCHMARK((BoxDecode<encode, decode>), "box_decode/" side)
BOX_BENCHMARKS(EncodeBoxTlv, DecodeBoxTlv, "ours");
BOX_BENCHMARKS(EncodeBoxProtobuf, DecodeBoxProtobuf, "protobuf");
BOX_BENCHMARKS(EncodeBoxMsgpack, DecodeBoxMsgpack, "msgpack");
} // namespace

BENCHMARK_MAIN();
