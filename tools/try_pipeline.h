/*
 * Trying a pipeline description with the real GStreamer, in a process of its own.
 *
 * GStreamer is loaded there, and only there: whoever wants no pipeline tried neither links it nor
 * waits for it, and an element that crashes or hangs takes nothing else along. One thread at a
 * time, from a process without other threads.
 */
#pragma once

#include <chrono>
#include <string>

/* Parses the description and, for a time above 0, plays it that long. Returns what is wrong, ""
 * for nothing. Takes at most 10 s more than the time. */
std::string TryPipeline(const std::string &i_strDescription, std::chrono::milliseconds i_objPlay);
