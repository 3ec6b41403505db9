/*
 * The forms that answers take.
 */
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include <httplib.h>

#include "framework/types.h"

/* {"error": "..."} with the status. */
void Refuse(httplib::Response &o_objResponse, int i_s32Status, const std::string &i_strWhy);
/* What is true for the moment only: no cache keeps it. */
void SendFresh(httplib::Response &o_objResponse, const std::string &i_strBody,
               const std::string &i_strType);
/* With an ETag; 304 without a body to whoever has it already. */
void SendTagged(const httplib::Request &i_objRequest, httplib::Response &o_objResponse,
                const std::string &i_strBody, const std::string &i_strType);
/* A body without an end that is known: the function is called until it answers false or ends the
 * sink. */
void SendStream(const httplib::Request &i_objRequest, httplib::Response &o_objResponse,
                const std::string &i_strType, std::function<Bool(httplib::DataSink &)> i_pWrite);
/* One of so many places, given back when the result goes; none if all are taken. */
std::shared_ptr<void> TakeSlot(std::atomic<UInt32> &io_u32Taken, UInt32 i_u32Most);
