/*
 * TLV box codec.
 *
 * A box is a chain of nodes, each with up to sixteen records and the room for their bytes, in which
 * a value lies as it does on the wire and never moves. The first node is part of the box's own
 * allocation and holds a whole stream command; a box that fits there is serialised already, a
 * larger one is copied together. A parsed box has the copy of its input in the first node, and the
 * records of all nodes point into it.
 */
#include "tlv/tlv_box.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdlib>
#include <cstring>

/* Values are the raw bytes of the put type, so the wire format is that of the targets we have. */
static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(short) == 2 && sizeof(int) == 4);
static_assert(sizeof(long) == 8 && sizeof(long long) == 8);
static_assert(sizeof(float) == 4 && sizeof(double) == 8);

namespace
{
constexpr std::size_t kHeaderSize = 8; /* type and length */
constexpr std::uint32_t kNodeRecords = 16;
/* Bytes of a node, unless one value needs more. A box with it is still one that malloc's thread
 * cache hands out. */
constexpr std::size_t kNodeRoom = 384;

struct node {
    node *next;
    std::size_t used;
    std::size_t capacity;
    std::uint32_t count;
    tlv records[kNodeRecords];
    unsigned char *bytes() { return reinterpret_cast<unsigned char *>(this + 1); }
};
} // namespace

struct tlv_box {
    unsigned char *buffer; /* null while building */
    std::int32_t size;
    node *tail;
    node head; /* its bytes follow */
};

namespace
{
void init_node(node *o_pNode, std::size_t i_u64Capacity)
{
    o_pNode->next = nullptr;
    o_pNode->used = 0;
    o_pNode->capacity = i_u64Capacity;
    o_pNode->count = 0;
}

tlv_box *make_box(std::size_t i_u64Room)
{
    auto *pBox = static_cast<tlv_box *>(std::malloc(sizeof(tlv_box) + i_u64Room));
    if (pBox != nullptr) {
        pBox->buffer = nullptr;
        pBox->size = 0;
        pBox->tail = &pBox->head;
        init_node(&pBox->head, i_u64Room);
    }
    return pBox;
}

/* A new last node with room for that many bytes; null when an allocation failed. Rare, and kept out
 * of the puts so that they need no registers saved for it. */
[[gnu::noinline]] node *add_node(tlv_box *i_pBox, std::size_t i_u64Room)
{
    auto *pNode = static_cast<node *>(std::malloc(sizeof(node) + i_u64Room));
    if (pNode != nullptr) {
        init_node(pNode, i_u64Room);
        i_pBox->tail->next = pNode;
        i_pBox->tail = pNode;
    }
    return pNode;
}

/* The first record whose type agrees on the bits of the mask, or null. */
inline const tlv *find_record(const tlv_box *i_pBox, std::uint32_t i_u32Type,
                              std::uint32_t i_u32Mask = UINT32_MAX)
{
    for (const node *pNode = &i_pBox->head; pNode != nullptr; pNode = pNode->next) {
        const tlv *pEnd = pNode->records + pNode->count;
        const tlv *pRecord = std::find_if(pNode->records, pEnd, [&](const tlv &i_stRecord) {
            return ((i_stRecord.type ^ i_u32Type) & i_u32Mask) == 0;
        });
        if (pRecord != pEnd) {
            return pRecord;
        }
    }
    return nullptr;
}

inline void append_record(node *i_pNode, std::uint32_t i_u32Type, std::uint32_t i_u32Length,
                          const unsigned char *i_pValue)
{
    i_pNode->records[i_pNode->count] = tlv{i_u32Type, i_u32Length, i_pValue};
    i_pNode->count++;
}

inline int put_value(tlv_box *i_pBox, std::uint32_t i_u32Type, const void *i_pValue,
                     std::size_t i_u64Length)
{
    if (i_pBox == nullptr || i_pBox->buffer != nullptr || i_pValue == nullptr ||
        i_u64Length > INT_MAX ||
        static_cast<std::size_t>(i_pBox->size) + kHeaderSize + i_u64Length > INT_MAX ||
        find_record(i_pBox, i_u32Type) != nullptr) {
        return -1;
    }
    const std::size_t u64Size = kHeaderSize + i_u64Length;
    node *pNode = i_pBox->tail;
    if (pNode->count == kNodeRecords || u64Size > pNode->capacity - pNode->used) {
        pNode = add_node(i_pBox, std::max(kNodeRoom, u64Size));
        if (pNode == nullptr) {
            return -1;
        }
    }
    unsigned char *pBytes = pNode->bytes() + pNode->used;
    const std::uint32_t u32Header[2] = {i_u32Type, static_cast<std::uint32_t>(i_u64Length)};
    std::memcpy(pBytes, u32Header, kHeaderSize);
    std::memcpy(pBytes + kHeaderSize, i_pValue, i_u64Length);
    append_record(pNode, u32Header[0], u32Header[1], pBytes + kHeaderSize);
    pNode->used += u64Size;
    i_pBox->size += static_cast<std::int32_t>(u64Size);
    return 0;
}

template <typename T> int get_number(const tlv_box *i_pBox, std::uint32_t i_u32Type, T *o_pValue)
{
    const tlv *pNode = tlv_box_get_node(i_pBox, i_u32Type);
    if (pNode == nullptr || o_pValue == nullptr) {
        return -1;
    }
    unsigned char u8Bytes[sizeof(T)] = {};
    if (pNode->length >= sizeof(T)) {
        std::memcpy(u8Bytes, pNode->value, sizeof(T));
    } else {
        std::memcpy(u8Bytes, pNode->value, pNode->length);
    }
    std::memcpy(o_pValue, u8Bytes, sizeof(T));
    return 0;
}
} // namespace

tlv_box *tlv_box_create()
{
    return make_box(kNodeRoom);
}

tlv_box *tlv_box_parse(const void *i_pBuffer, int i_s32Size)
{
    const std::size_t u64Size = i_s32Size > 0 ? static_cast<std::size_t>(i_s32Size) : 0;
    if (i_pBuffer == nullptr && u64Size > 0) {
        return nullptr;
    }
    tlv_box *pBox = make_box(u64Size);
    if (pBox == nullptr) {
        return nullptr;
    }
    pBox->buffer = pBox->head.bytes();
    pBox->size = static_cast<std::int32_t>(u64Size);
    if (u64Size > 0) {
        std::memcpy(pBox->buffer, i_pBuffer, u64Size);
    }

    unsigned char *pNext = pBox->buffer;
    std::size_t u64Left = u64Size;
    while (u64Left >= kHeaderSize) {
        std::uint32_t u32Header[2];
        std::memcpy(u32Header, pNext, kHeaderSize);
        if (u32Header[1] > u64Left - kHeaderSize) {
            break;
        }
        /* A second record of a type is dropped by never being found: the first one is. */
        if (pBox->tail->count == kNodeRecords && add_node(pBox, 0) == nullptr) {
            tlv_box_destroy(pBox);
            return nullptr;
        }
        append_record(pBox->tail, u32Header[0], u32Header[1], pNext + kHeaderSize);
        pNext += kHeaderSize + u32Header[1];
        u64Left -= kHeaderSize + u32Header[1];
    }
    return pBox;
}

int tlv_box_destroy(tlv_box *i_pBox)
{
    if (i_pBox == nullptr) {
        return -1;
    }
    if (i_pBox->buffer != i_pBox->head.bytes()) {
        std::free(i_pBox->buffer);
    }
    for (node *pNode = i_pBox->head.next; pNode != nullptr;) {
        node *pNext = pNode->next;
        std::free(pNode);
        pNode = pNext;
    }
    std::free(i_pBox);
    return 0;
}

const unsigned char *tlv_box_get_buffer(const tlv_box *i_pBox)
{
    return i_pBox != nullptr ? i_pBox->buffer : nullptr;
}

int tlv_box_get_size(const tlv_box *i_pBox)
{
    return i_pBox != nullptr ? i_pBox->size : -1;
}

int tlv_box_put_int(tlv_box *i_pBox, std::uint32_t i_u32Type, int i_s32Value)
{
    return put_value(i_pBox, i_u32Type, &i_s32Value, sizeof(i_s32Value));
}

int tlv_box_put_string(tlv_box *i_pBox, std::uint32_t i_u32Type, const char *i_pText)
{
    return i_pText != nullptr ? put_value(i_pBox, i_u32Type, i_pText, std::strlen(i_pText) + 1)
                              : -1;
}

int tlv_box_put_object(tlv_box *i_pBox, std::uint32_t i_u32Type, const tlv_box *i_pNested)
{
    if (tlv_box_get_buffer(i_pNested) == nullptr) {
        return -1;
    }
    return tlv_box_put_bytes(i_pBox, i_u32Type, tlv_box_get_buffer(i_pNested),
                             tlv_box_get_size(i_pNested));
}

int tlv_box_serialize(tlv_box *i_pBox)
{
    if (i_pBox == nullptr || i_pBox->buffer != nullptr) {
        return -1;
    }
    if (i_pBox->head.next == nullptr) {
        i_pBox->buffer = i_pBox->head.bytes();
        return 0;
    }
    auto *pBuffer =
        static_cast<unsigned char *>(std::malloc(static_cast<std::size_t>(i_pBox->size)));
    if (pBuffer == nullptr) {
        return -1;
    }
    unsigned char *pNext = pBuffer;
    for (node *pNode = &i_pBox->head; pNode != nullptr; pNode = pNode->next) {
        std::memcpy(pNext, pNode->bytes(), pNode->used);
        pNext += pNode->used;
    }
    i_pBox->buffer = pBuffer;
    return 0;
}

const tlv *tlv_box_get_node(const tlv_box *i_pBox, std::uint32_t i_u32Type)
{
    return i_pBox != nullptr ? find_record(i_pBox, i_u32Type) : nullptr;
}

int tlv_box_get_int(const tlv_box *i_pBox, std::uint32_t i_u32Type, int *o_pValue)
{
    return get_number(i_pBox, i_u32Type, o_pValue);
}

int tlv_box_get_string(const tlv_box *i_pBox, std::uint32_t i_u32Type, char *o_pBuffer,
                       int *io_pLength)
{
    return tlv_box_get_bytes(i_pBox, i_u32Type, o_pBuffer, io_pLength);
}

int tlv_box_get_object(const tlv_box *i_pBox, std::uint32_t i_u32Type, tlv_box **o_pNested)
{
    const tlv *pNode = tlv_box_get_node(i_pBox, i_u32Type);
    if (pNode == nullptr || o_pNested == nullptr) {
        return -1;
    }
    tlv_box *pNested = tlv_box_parse(pNode->value, static_cast<int>(pNode->length));
    if (pNested == nullptr) {
        return -1;
    }
    *o_pNested = pNested;
    return 0;
}

int tlv_box_put_char(tlv_box *i_pBox, std::uint32_t i_u32Type, char i_s8Value)
{
    return put_value(i_pBox, i_u32Type, &i_s8Value, sizeof(i_s8Value));
}

int tlv_box_put_short(tlv_box *i_pBox, std::uint32_t i_u32Type, short i_s16Value)
{
    return put_value(i_pBox, i_u32Type, &i_s16Value, sizeof(i_s16Value));
}

int tlv_box_put_long(tlv_box *i_pBox, std::uint32_t i_u32Type, long i_s64Value)
{
    return put_value(i_pBox, i_u32Type, &i_s64Value, sizeof(i_s64Value));
}

int tlv_box_put_longlong(tlv_box *i_pBox, std::uint32_t i_u32Type, long long i_s64Value)
{
    return put_value(i_pBox, i_u32Type, &i_s64Value, sizeof(i_s64Value));
}

int tlv_box_put_float(tlv_box *i_pBox, std::uint32_t i_u32Type, float i_f32Value)
{
    return put_value(i_pBox, i_u32Type, &i_f32Value, sizeof(i_f32Value));
}

int tlv_box_put_double(tlv_box *i_pBox, std::uint32_t i_u32Type, double i_f64Value)
{
    return put_value(i_pBox, i_u32Type, &i_f64Value, sizeof(i_f64Value));
}

int tlv_box_put_bytes(tlv_box *i_pBox, std::uint32_t i_u32Type, const void *i_pBytes,
                      int i_s32Length)
{
    if (i_s32Length == 0) {
        i_pBytes = "";
    }
    return i_s32Length >= 0
               ? put_value(i_pBox, i_u32Type, i_pBytes, static_cast<std::size_t>(i_s32Length))
               : -1;
}

int tlv_box_get_char(const tlv_box *i_pBox, std::uint32_t i_u32Type, char *o_pValue)
{
    return get_number(i_pBox, i_u32Type, o_pValue);
}

int tlv_box_get_short(const tlv_box *i_pBox, std::uint32_t i_u32Type, short *o_pValue)
{
    return get_number(i_pBox, i_u32Type, o_pValue);
}

int tlv_box_get_long(const tlv_box *i_pBox, std::uint32_t i_u32Type, long *o_pValue)
{
    return get_number(i_pBox, i_u32Type, o_pValue);
}

int tlv_box_get_longlong(const tlv_box *i_pBox, std::uint32_t i_u32Type, long long *o_pValue)
{
    return get_number(i_pBox, i_u32Type, o_pValue);
}

int tlv_box_get_float(const tlv_box *i_pBox, std::uint32_t i_u32Type, float *o_pValue)
{
    return get_number(i_pBox, i_u32Type, o_pValue);
}

int tlv_box_get_double(const tlv_box *i_pBox, std::uint32_t i_u32Type, double *o_pValue)
{
    return get_number(i_pBox, i_u32Type, o_pValue);
}

int tlv_box_get_bytes(const tlv_box *i_pBox, std::uint32_t i_u32Type, void *o_pBuffer,
                      int *io_pLength)
{
    const tlv *pNode = tlv_box_get_node(i_pBox, i_u32Type);
    if (pNode == nullptr || o_pBuffer == nullptr || io_pLength == nullptr || *io_pLength < 0 ||
        static_cast<std::uint32_t>(*io_pLength) < pNode->length) {
        return -1;
    }
    std::memset(o_pBuffer, 0, static_cast<std::size_t>(*io_pLength));
    std::memcpy(o_pBuffer, pNode->value, pNode->length);
    *io_pLength = static_cast<int>(pNode->length);
    return 0;
}

int tlv_box_get_bytes_ptr(const tlv_box *i_pBox, std::uint32_t i_u32Type,
                          const unsigned char **o_pBytes, int *o_pLength)
{
    const tlv *pNode = tlv_box_get_node(i_pBox, i_u32Type);
    if (pNode == nullptr || o_pBytes == nullptr || o_pLength == nullptr) {
        return -1;
    }
    *o_pBytes = pNode->value;
    *o_pLength = static_cast<int>(pNode->length);
    return 0;
}

const tlv *tlv_box_get_mask_node(const tlv_box *i_pBox, std::uint32_t i_u32Type,
                                 std::uint32_t i_u32Mask)
{
    return i_pBox != nullptr ? find_record(i_pBox, i_u32Type, i_u32Mask) : nullptr;
}

int tlv_packet(std::uint32_t i_u32OuterType, std::uint32_t i_u32InnerType, const void *i_pData,
               int i_s32Length, tlv_send i_pSend)
{
    tlv_box *pInner = tlv_box_create();
    tlv_box *pOuter = tlv_box_create();
    int s32Result = -1;
    if (tlv_box_put_bytes(pInner, i_u32InnerType, i_pData, i_s32Length) == 0 &&
        tlv_box_serialize(pInner) == 0 && tlv_box_put_object(pOuter, i_u32OuterType, pInner) == 0 &&
        tlv_box_serialize(pOuter) == 0) {
        if (i_pSend != nullptr) {
            i_pSend(tlv_box_get_buffer(pOuter), tlv_box_get_size(pOuter));
        }
        s32Result = 0;
    }
    tlv_box_destroy(pInner);
    tlv_box_destroy(pOuter);
    return s32Result;
}
