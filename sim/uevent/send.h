/*
 * The way of a uevent to the kernel, which hands it to every listener of the network namespace as
 * if a driver had raised it.
 */
#pragma once

#include <string>

/* Hands the payload (UeventPayload) to the kernel and waits for its verdict: 0 or an errno value,
 * EPERM for whoever is not root of the network namespace. */
int SendToKernel(const std::string &i_strPayload);
