// What a client asks an agent, and what comes back: the grammar of both, and nothing else.
//
// A request is one record of a local SOCK_SEQPACKET socket, with the write end of a pipe beside it:
//
//     KIND [all] [completed] [match REGEX]
//
// The words are separated by one blank each; "all" and "completed" come once at most, in either
// order. REGEX is the rest of the record: one byte at least, any but NUL, and blanks are its own.
// KIND is "text", "json" or "history".
//
// The agent answers into the pipe and closes it; to a client of another user than its own and root
// it says nothing. An answer is one of
//
//     ok SIZE\n     and SIZE bytes of text; for "text" and "history"
//     {...}         one JSON document; for "json"
//     error: REASON\n
//
// so that an answer that was broken off can be told from a whole one.
//
// The functions take any bytes.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace Show {

enum class Kind { text, json, history };

std::string_view kindText( Kind kind );
std::optional<Kind> kindOf( std::string_view text );

struct Request {
   Kind kind = Kind::text;
   // Tasks that never ran, and records of tasks that are gone, are reported too.
   bool all = false;
   bool completed = false;
   // A regular expression for the names of tasks; empty for every task.
   std::string match;

   bool operator==( const Request& ) const = default;
};

// The longest record that an agent takes. Expressions have 2048 bytes at most.
inline constexpr std::size_t requestSizeMax = 4096;

// The record of a request. That of a `match` with a NUL byte, or of one that is too long, is no
// request.
std::string formatRequest( const Request& request );

// The request in a record, or what is wrong with it.
std::variant<Request, std::string_view> parseRequest( std::string_view record );

// The first line of an answer of text.
std::string answerHead( std::size_t size );

// The answer that refuses: one line of printable ASCII, short enough for a pipe to take it whole.
std::string answerError( std::string_view reason );

struct Answer {
   enum class State { whole, refused, brokenOff };

   State state = State::brokenOff;
   // The report, or the reason of a refusal. Points into the bytes.
   std::string_view text;
};

// Takes apart all bytes that came out of the pipe. A JSON document is whole when its braces and
// strings are closed where the bytes end; more than that is not checked.
Answer parseAnswer( Kind kind, std::string_view bytes );

// Whether an agent may have this name: 1 to 64 of the ASCII letters, digits, ".", "_" and "-", and
// no "-" in front.
bool agentNameValid( std::string_view name );

inline constexpr std::string_view agentNameDefault = "host-agent";

// The name of the agent's socket among the abstract local ones: "oruquarn-show/" and the agent's
// name. Those names are apart for each network namespace.
std::string socketName( std::string_view agent );

} // namespace Show
