/*
 * TLV box codec: a box is a flat sequence of (type, length, value) records with unique types, and
 * a value may be a whole serialised box.
 *
 * On the wire a record is its type (4 bytes), the length of its value (4 bytes) and the value;
 * records follow one another without header, count or padding. Everything is little-endian.
 *
 * A box is building (records can be put) until tlv_box_serialize seals it; tlv_box_parse makes a
 * sealed box. Records can be read in both states. Results are 0 and -1; a null argument is
 * answered with -1 or null. A box is not locked: threads may read the same one as long as none of
 * them puts or serialises.
 */
#pragma once

#include <cstddef>
#include <cstdint>

struct tlv_box;

/* One record. It and its value belong to their box and live as long. */
struct tlv {
    std::uint32_t type;
    std::uint32_t length; /* of the value, bytes */
    const unsigned char *value;
};

/* An empty building box; null when an allocation failed. */
tlv_box *tlv_box_create();
/* A sealed box with copies of the records of a received buffer. Records are taken up to the first
 * one that would run past i_s32Size; one whose type came before is dropped. A size of 0 or less
 * gives an empty box of size 0; otherwise the box's buffer and size are the whole input's. Null for
 * a null buffer with a positive size, or when an allocation failed. */
tlv_box *tlv_box_parse(const void *i_pBuffer, int i_s32Size);
/* Frees the records, the buffer and the box; -1 for null. */
int tlv_box_destroy(tlv_box *i_pBox);

/* The serialised bytes, owned by the box; null while it is building. */
const unsigned char *tlv_box_get_buffer(const tlv_box *i_pBox);
/* The serialised size in bytes, up to date in both states; -1 for null. */
int tlv_box_get_size(const tlv_box *i_pBox);

/* The puts append one record. -1 with the box unchanged: it is sealed, it has a record of that
 * type, its size would exceed 2^31 - 1, or an allocation failed. */
int tlv_box_put_int(tlv_box *i_pBox, std::uint32_t i_u32Type, int i_s32Value);
/* The value is the characters and the terminating zero. */
int tlv_box_put_string(tlv_box *i_pBox, std::uint32_t i_u32Type, const char *i_pText);
/* Copies the nested box's serialised bytes; -1 also when it is not sealed. The caller still
 * destroys the nested box. */
int tlv_box_put_object(tlv_box *i_pBox, std::uint32_t i_u32Type, const tlv_box *i_pNested);

/* Seals a building box; -1 when it is sealed already or an allocation failed. */
int tlv_box_serialize(tlv_box *i_pBox);

/* The record of that type, or null. */
const tlv *tlv_box_get_node(const tlv_box *i_pBox, std::uint32_t i_u32Type);
/* The gets answer -1, with the output as it was, when no record has that type. The number gets
 * read the value at their own width: of a longer value the first bytes, and a shorter one is
 * filled up with zeros. Who has to tell a short value apart looks at the record's length. */
int tlv_box_get_int(const tlv_box *i_pBox, std::uint32_t i_u32Type, int *o_pValue);
/* *io_pLength is the capacity going in and the value's length coming out (of a string with its
 * terminating zero, if the sender put one: received bytes that fill the capacity end without).
 * The whole capacity is zeroed before the copy. -1 also when the capacity is too small. */
int tlv_box_get_string(const tlv_box *i_pBox, std::uint32_t i_u32Type, char *o_pBuffer,
                       int *io_pLength);
/* A new sealed box parsed from the value; the caller destroys it. */
int tlv_box_get_object(const tlv_box *i_pBox, std::uint32_t i_u32Type, tlv_box **o_pNested);

/* ---- Offered and tested, called by none of the programs here. ---- */

int tlv_box_put_char(tlv_box *i_pBox, std::uint32_t i_u32Type, char i_s8Value);
int tlv_box_put_short(tlv_box *i_pBox, std::uint32_t i_u32Type, short i_s16Value);
int tlv_box_put_long(tlv_box *i_pBox, std::uint32_t i_u32Type, long i_s64Value);
int tlv_box_put_longlong(tlv_box *i_pBox, std::uint32_t i_u32Type, long long i_s64Value);
int tlv_box_put_float(tlv_box *i_pBox, std::uint32_t i_u32Type, float i_f32Value);
int tlv_box_put_double(tlv_box *i_pBox, std::uint32_t i_u32Type, double i_f64Value);
/* -1 also for a negative length. */
int tlv_box_put_bytes(tlv_box *i_pBox, std::uint32_t i_u32Type, const void *i_pBytes,
                      int i_s32Length);

int tlv_box_get_char(const tlv_box *i_pBox, std::uint32_t i_u32Type, char *o_pValue);
int tlv_box_get_short(const tlv_box *i_pBox, std::uint32_t i_u32Type, short *o_pValue);
int tlv_box_get_long(const tlv_box *i_pBox, std::uint32_t i_u32Type, long *o_pValue);
int tlv_box_get_longlong(const tlv_box *i_pBox, std::uint32_t i_u32Type, long long *o_pValue);
int tlv_box_get_float(const tlv_box *i_pBox, std::uint32_t i_u32Type, float *o_pValue);
int tlv_box_get_double(const tlv_box *i_pBox, std::uint32_t i_u32Type, double *o_pValue);
/* As tlv_box_get_string. */
int tlv_box_get_bytes(const tlv_box *i_pBox, std::uint32_t i_u32Type, void *o_pBuffer,
                      int *io_pLength);
/* Points into the box's own copy, valid until the box is destroyed. */
int tlv_box_get_bytes_ptr(const tlv_box *i_pBox, std::uint32_t i_u32Type,
                          const unsigned char **o_pBytes, int *o_pLength);
/* The first record, in order, whose type agrees with i_u32Type on every bit set in i_u32Mask. */
const tlv *tlv_box_get_mask_node(const tlv_box *i_pBox, std::uint32_t i_u32Type,
                                 std::uint32_t i_u32Mask);

/* Takes the serialised bytes for the time of the call. */
using tlv_send = void (*)(const unsigned char *i_pBuffer, int i_s32Size);
/* Wraps the bytes as the one record of the inner type in a box, that box as the one record of the
 * outer type in a second, and hands the result to i_pSend (null: to nobody). */
int tlv_packet(std::uint32_t i_u32OuterType, std::uint32_t i_u32InnerType, const void *i_pData,
               int i_s32Length, tlv_send i_pSend);
