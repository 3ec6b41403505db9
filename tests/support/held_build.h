/*
 * Stands between the runner and gst_parse_launch, so that a test can say when a build ends.
 *
 * The program is linked with --wrap=gst_parse_launch; while nothing is asked every call goes
 * straight to GStreamer.
 */
#pragma once

namespace held_build
{
/* From now on builds of a description that begins so, a literal, block until Release(). */
void Hold(const char *i_pBegin = "");
/* Waits until the held build has been entered. */
void WaitUntilHeld();
void Release();
/* The next build yields neither a pipeline nor an error. */
void YieldNothing();
} // namespace held_build
