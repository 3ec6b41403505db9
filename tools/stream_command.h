/*
 * The stream command on the wire: the request that asks for fields and sets others, and the reply.
 */
#pragma once

#include <array>
#include <optional>
#include <string>

#include "tools/stream_fields.h"

using CFieldAsks = std::array<Bool, STREAM_SETTING_COUNT>;

/* The bytes of a request; the daemon answers with the asked fields as they were before the sets.
 * It does not answer at all unless one of the two flags is among them. */
std::string EncodeStreamCommand(const CFieldAsks &i_objAsks, const CFieldValues &i_objSets);

/* The fields of a reply; none if the bytes are not one: no record 4, an empty nested box, or a
 * value of another kind than its field's. */
std::optional<CFieldValues> DecodeStreamReply(const std::string &i_strBytes);
