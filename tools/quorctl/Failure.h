/// @file
/// @brief What quorctl ends with, and the exceptions that carry it to main().
#pragma once

#include <stdexcept>
#include <string>

namespace QuorCtl
{
/// The exit statuses of the program; the man page promises them to scripts.
enum eExitStatus : int {
    EXIT_STATUS_OK = 0,
    EXIT_STATUS_REFUSED = 1,   ///< The daemon answered with an error, or with what is no answer.
    EXIT_STATUS_USAGE = 2,     ///< The command line asks for what is not there.
    EXIT_STATUS_NO_ANSWER = 3, ///< No connection, or no answer in time.
};

/// A command cannot go on. The text is one line, without the program's name.
class CFailure : public std::runtime_error
{
public:
    CFailure(eExitStatus status, const std::string& szText)
        : std::runtime_error(szText), m_status(status)
    {
    }

    eExitStatus Status() const { return m_status; }

private:
    eExitStatus m_status;
};

/// The daemon answered with an error, or with data that makes no sense.
class CRefusal : public CFailure
{
public:
    explicit CRefusal(const std::string& szText) : CFailure(EXIT_STATUS_REFUSED, szText) {}
};

/// The command line is wrong.
class CUsageError : public CFailure
{
public:
    explicit CUsageError(const std::string& szText) : CFailure(EXIT_STATUS_USAGE, szText) {}
};

/// There is no connection, it was lost, or what comes over it are no frames.
class CLinkFailure : public CFailure
{
public:
    explicit CLinkFailure(const std::string& szText) : CFailure(EXIT_STATUS_NO_ANSWER, szText) {}
};

/// A time-out; apart from the other failures, since some commands go on after it.
class CTimeOut : public CLinkFailure
{
public:
    using CLinkFailure::CLinkFailure;
};

/// SIGINT or SIGTERM came to a command that watches for them.
class CInterrupted : public CLinkFailure
{
public:
    CInterrupted() : CLinkFailure("interrupted") {}
};
} // namespace QuorCtl
