/*
 * Handlers of the stream commands: what the local control channel's datagrams mean.
 *
 * A datagram is a TLV box whose record of type 4 holds the command's own box. Its records ask for
 * settings and set settings of the H.264 stream and the preview; the answer goes out as a box of
 * the same shape, on a socket of its own. All of this runs on the task thread that runs the
 * control channel's task and keeps no state.
 */
#pragma once

/* Handles one datagram: first what it asks for, then what it sets, so that the answer shows the
 * state before the set. 0 handled, -1 malformed. The reply buffer and length are left alone. */
int EventCallBack(char *i_pReceived, int i_s32Length, char *o_pReply, int i_s32Capacity,
                  int &o_s32ReplyLength);

/* Answers what was asked for: each argument is 1 for a field that is wanted, else 0. 0, also when
 * the answer could not be sent (an ERROR line says so); -1 when nothing is sent, because neither
 * enable flag was asked for or no answer could be built. */
int HandleH264PrevGetCmd(int i_s32H264Enable, int i_s32H264Gop, int i_s32H264Mode,
                         int i_s32H264Bitrate, int i_s32PrevEnable, int i_s32PrevHeight,
                         int i_s32PrevRefreshrate);

/* Sends the encoder a change: each argument is a value, or -1 for a field that is not given. Mode:
 * 0 "cbr", 1 "vbr". GOP 2..120 frames, bit rate 100000..10000000 bit/s, height 270..1080 lines,
 * refresh rate 1..10 pictures per second. 0 when the change was sent; -1 for a value out of range
 * or nothing to change (an ERROR line says which). */
int HandleH264PrevSetCmd(int i_s32H264Enable, int i_s32H264Gop, int i_s32H264Mode,
                         int i_s32H264Bitrate, int i_s32PrevEnable, int i_s32PrevHeight,
                         int i_s32PrevRefreshrate);
