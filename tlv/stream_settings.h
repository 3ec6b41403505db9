/*
 * The seven settings of the H.264 stream and its preview, as the local control channel carries
 * them: one table for the daemon's end and for everyone who asks it.
 *
 * A datagram is a box whose record STREAM_COMMAND_RECORD holds the command's or the answer's own
 * box. In there a setting has one record type for being asked for (any value) and answered, and a
 * second for being set. Defaults and the names in the parameter file are the parameter table's.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr std::uint32_t STREAM_COMMAND_RECORD = 4;

/* What a setting's records hold. */
enum class SettingKind {
    Flag,   /* answered with the text "true" or "false", set by the int 1 or 0 */
    Number, /* an int, both ways */
    Mode    /* a text, both ways */
};

/* Places in the table. */
enum StreamSetting : std::size_t {
    SETTING_H264,
    SETTING_GOP,
    SETTING_MODE,
    SETTING_BITRATE,
    SETTING_PREVIEW,
    SETTING_HEIGHT,
    SETTING_REFRESHRATE,
    STREAM_SETTING_COUNT
};

struct STREAM_SETTING_S {
    const char *pName; /* for people and scripts */
    SettingKind eKind;
    std::uint32_t u32Ask; /* record types */
    std::uint32_t u32Set;
    /* What the control channel takes of a number, both included; a parameter file may say more. */
    std::int32_t s32Least;
    std::int32_t s32Most;

    constexpr bool Takes(std::int32_t i_s32Value) const
    {
        return i_s32Value >= s32Least && i_s32Value <= s32Most;
    }
};

/* In the order of the record types. */
inline constexpr std::array<STREAM_SETTING_S, STREAM_SETTING_COUNT> STREAM_SETTINGS = {{
    {"h264", SettingKind::Flag, 0x10001, 0x10002, INT32_MIN, INT32_MAX},
    {"gop", SettingKind::Number, 0x20001, 0x20002, 2, 120},               /* frames */
    {"mode", SettingKind::Mode, 0x30001, 0x30002, 0, 0},                  /* "cbr" or "vbr" */
    {"bitrate", SettingKind::Number, 0x40001, 0x40002, 100000, 10000000}, /* bit/s */
    {"preview", SettingKind::Flag, 0x50001, 0x50002, INT32_MIN, INT32_MAX},
    {"height", SettingKind::Number, 0x60001, 0x60002, 270, 1080},  /* lines */
    {"refreshrate", SettingKind::Number, 0x70001, 0x70002, 1, 10}, /* pictures per second */
}};
