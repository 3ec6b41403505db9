/*
 * The settings of tlv/stream_settings.h as people write and read them. A field is a setting's place
 * in that table.
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
#include "tlv/stream_settings.h"

struct FIELD_TEXTS_S {
    const char *pUnit; /* "" for none */
    const char *pHelp;
};
extern const std::array<FIELD_TEXTS_S, STREAM_SETTING_COUNT> FIELD_TEXTS;

using CFieldValue = std::variant<Bool, SInt32, std::string>;
/* A value per setting, where there is one. */
using CFieldValues = std::array<std::optional<CFieldValue>, STREAM_SETTING_COUNT>;

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
