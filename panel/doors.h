/*
 * Who may come in: the names the panel answers to, the password, and the sessions.
 *
 * Looking is open to whoever reaches the panel; changing needs a session, which needs the password.
 * Any thread.
 */
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "framework/types.h"

/* A Host header is ours if it is an address, localhost, this machine's name or one of the given
 * ones: a page of another site that had its own name point here (DNS rebinding) comes with that
 * name. */
Bool IsOwnHost(const std::string &i_strHost, const std::vector<std::string> &i_objNames);
/* An Origin header is ours if it names the same host and port as the Host header. */
Bool IsOwnOrigin(const std::string &i_strOrigin, const std::string &i_strHost);
/* This machine's name, and that with ".local" and with its domain. */
std::vector<std::string> OwnNames();

/* The value of the named cookie (RFC 6265); empty if there is none. */
std::string FindCookie(const std::string &i_strHeader, const std::string &i_strName);

enum class LoginResult { Welcome, Wrong, NoPassword, TooMany };

class CDoors
{
public:
    using CTime = std::chrono::steady_clock::time_point;
    explicit CDoors(std::string i_strPasswordFile) : m_strFile(std::move(i_strPasswordFile)) {}

    /* After five wrong passwords from an address each further one makes it wait, from a second to
     * a minute; o_strToken is the new session's, o_u32Wait the seconds to wait. */
    LoginResult Login(const std::string &i_strAddress, const std::string &i_strPassword,
                      CTime i_objNow, std::string &o_strToken, UInt32 &o_u32Wait);
    void Logout(const std::string &i_strToken);
    /* A session ends after twelve hours without a request, and when the password is changed. */
    Bool IsSession(const std::string &i_strToken, CTime i_objNow);
    /* Whether changes are possible at all. */
    Bool HasPassword() const;

private:
    struct TRIES_S {
        UInt32 u32Wrong = 0;
        CTime objNext; /* no earlier */
    };
    struct SESSION_S {
        std::string strHash; /* the password's that it was opened with */
        CTime objUsed;
    };
    void CountWrong(const std::string &i_strAddress, CTime i_objNow);

    const std::string m_strFile;
    std::mutex m_objMutex; /* also lets one password be tried at a time: that costs 16 MB */
    std::map<std::string, TRIES_S> m_objTries;
    std::map<std::string, SESSION_S> m_objSessions;
};

/* Asks for the password twice, without showing it, or reads one line of the standard input if that
 * is no terminal; stores its hash (yescrypt, crypt(5)) in the file with mode 0600, the panel's user
 * as its owner if there is one. 0, or 1 with a message. */
int SetPassword(const std::string &i_strFile);
