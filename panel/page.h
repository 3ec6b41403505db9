/*
 * The page as it leaves the box: with the sentence and the figures of the moment in it, so that
 * they are there with the first byte and with scripts switched off. Pure function.
 */
#pragma once

#include <string>

#include "panel/state.h"

/* Replaces {{condition}}, {{text}}, {{input}}, {{stream}} and {{origin}}, by which the reader
 * reaches the panel ("http://host:port"); what is put in is escaped. */
std::string FillPage(std::string i_strPage, const SEEN_STATE_S &i_stState,
                     const std::string &i_strOrigin);
