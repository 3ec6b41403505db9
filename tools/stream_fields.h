/*
 * The seven settings that the control channel carries, by name and in human units: what they are
 * called, what the daemon takes, how a person writes them and how they are shown.
 *
 * Functions without state; any thread may call them.
 */
#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <variant>

#include "framework/types.h"

constexpr std::size_t STREAM_FIELD_COUNT = 7;
constexpr std::size_t STREAM_FIELD_H264 = 0;
constexpr std::size_t STREAM_FIELD_MODE = 2;
constexpr std::size_t STREAM_FIELD_REFRESHRATE = 6;

enum class FieldKind { Flag, Number, Mode };

struct STREAM_FIELD_S {
    const char *pName;
    FieldKind eKind;
    SInt32 s32Least; /* of a number: what the control channel takes */
    SInt32 s32Most;
    const char *pUnit;
    const char *pHelp;
};

/* In the order of the wire. */
extern const std::array<STREAM_FIELD_S, STREAM_FIELD_COUNT> STREAM_FIELDS;

using CFieldValue = std::variant<Bool, SInt32, std::string>;
/* A value per field, where there is one. */
using CFieldValues = std::array<std::optional<CFieldValue>, STREAM_FIELD_COUNT>;

/* The value that a person wrote: on/off, a number with k or M for a bit rate, cbr/vbr. Without a
 * value o_strError says what is wrong. A number outside of the field's range is a value too: the
 * daemon is the one to refuse it. */
std::optional<CFieldValue> ParseField(std::size_t i_u64Field, const std::string &i_strText,
                                      std::string &o_strError);
/* "5", "1.5s", "200ms"; seconds without a unit. None unless it is at least a millisecond and at
 * most a day. */
std::optional<std::chrono::milliseconds> ParseDuration(const std::string &i_strText);

/* "on", "60", "2M", "vbr"; what is not printable in a received text is shown as '?'. */
std::string FormatField(std::size_t i_u64Field, const CFieldValue &i_xValue);
/* "2 to 120 frames" */
std::string FormatRange(std::size_t i_u64Field);
/* Whether the control channel takes the value. */
Bool IsInRange(std::size_t i_u64Field, const CFieldValue &i_xValue);
