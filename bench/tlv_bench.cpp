/*
 * The box codec: the stream command (seven asks and seven sets, nested) encoded and decoded, beside
 * protobuf and msgpack, and boxes of four-byte records beside protobuf.
 *
 * Every round starts from plain values and ends with them, so each side pays for its own objects,
 * buffers and lookups. A box and a msgpack map are asked for each field by its type, since neither
 * promises an order; protobuf has accessors.
 */
#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include <msgpack.hpp>

#include "bench/subjects.h"
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
    bool operator==(const DECODED_S &) const = default;
};
constexpr DECODED_S kWanted = {{true, true, true, true, true, true, true}, kValues};

int ModeNumber(std::string_view i_objText)
{
    return i_objText == "cbr" ? 0 : 1;
}

/* Takes the box. */
std::string Bytes(tlv_box *i_pBox)
{
    tlv_box_serialize(i_pBox);
    std::string strBytes(reinterpret_cast<const char *>(tlv_box_get_buffer(i_pBox)),
                         static_cast<std::size_t>(tlv_box_get_size(i_pBox)));
    tlv_box_destroy(i_pBox);
    return strBytes;
}

std::string EncodeTlv()
{
    tlv_box *pNested = tlv_box_create();
    for (std::uint32_t i = 0; i < kFields; i++) {
        tlv_box_put_int(pNested, kAsk + i * kStep, 1);
        if (i == kMode) {
            tlv_box_put_string(pNested, kSet + i * kStep, "cbr");
        } else {
            tlv_box_put_int(pNested, kSet + i * kStep, kValues[i]);
        }
    }
    tlv_box_serialize(pNested);
    tlv_box *pOuter = tlv_box_create();
    tlv_box_put_object(pOuter, kStreamCommand, pNested);
    tlv_box_destroy(pNested);
    return Bytes(pOuter);
}

DECODED_S DecodeTlv(const std::string &i_strBytes)
{
    DECODED_S stDecoded = {};
    tlv_box *pOuter = tlv_box_parse(i_strBytes.data(), static_cast<int>(i_strBytes.size()));
    tlv_box *pNested = nullptr;
    tlv_box_get_object(pOuter, kStreamCommand, &pNested);
    for (std::uint32_t i = 0; i < kFields; i++) {
        stDecoded.bAsked[i] = tlv_box_get_node(pNested, kAsk + i * kStep) != nullptr;
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
        const msgpack::object *pValue = FindMsgpack(*pNested, kSet + i * kStep);
        stDecoded.s32Values[i] =
            i == kMode ? ModeNumber(pValue->as<std::string_view>()) : pValue->as<int>();
    }
    return stDecoded;
}

template <std::string (*Encode)(), DECODED_S (*Decode)(const std::string &)>
void StreamCommand(benchmark::State &io_objState)
{
    if (!(Decode(Encode()) == kWanted)) { /* a decoder that loses a field must not win */
        io_objState.SkipWithError("decoded wrongly");
    }
    for (auto objRound : io_objState) {
        const DECODED_S stDecoded = Decode(Encode());
        benchmark::DoNotOptimize(stDecoded);
    }
}

std::string EncodeBoxTlv(int i_s32Records)
{
    tlv_box *pBox = tlv_box_create();
    for (int i = 0; i < i_s32Records; i++) {
        tlv_box_put_int(pBox, static_cast<std::uint32_t>(i) + 1, i);
    }
    return Bytes(pBox);
}

std::string EncodeBoxProtobuf(int i_s32Records)
{
    reference::Box objBox;
    for (int i = 0; i < i_s32Records; i++) {
        reference::Record &objRecord = *objBox.add_records();
        objRecord.set_type(static_cast<std::uint32_t>(i) + 1);
        objRecord.set_value(&i, sizeof(i));
    }
    return objBox.SerializeAsString();
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
} // namespace

int main(int argc, char **argv)
{
    AddSubject("stream command encoded and decoded", StreamCommand<EncodeTlv, DecodeTlv>,
               "protobuf", StreamCommand<EncodeProtobuf, DecodeProtobuf>, 1.75);
    AddSubject("stream command encoded and decoded", StreamCommand<EncodeTlv, DecodeTlv>, "msgpack",
               StreamCommand<EncodeMsgpack, DecodeMsgpack>, 1);
    for (const int s32Records : {1, 100}) {
        const std::string strBox = "box of " + std::to_string(s32Records);
        AddSubject(strBox + " encoded", BoxEncode<EncodeBoxTlv>, "protobuf",
                   BoxEncode<EncodeBoxProtobuf>, 0.6, s32Records);
        AddSubject(strBox + " decoded", BoxDecode<EncodeBoxTlv, DecodeBoxTlv>, "protobuf",
                   BoxDecode<EncodeBoxProtobuf, DecodeBoxProtobuf>, 0.6, s32Records);
    }
    return RunSubjects(argc, argv);
}
