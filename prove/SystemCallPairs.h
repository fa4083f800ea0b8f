// The pairs of a call of the system and an error, and what is promised for each.

#pragma once

#include "prove/Faults.h"

#include <Quarn/debug/DebugHandler.h>

#include <functional>
#include <span>
#include <string>
#include <utility>

namespace prove {

// What an operation works with: a folder of its own and a handler that traces everything.
class Scene {
 public:
   explicit Scene( std::string folder_ );

   // The part of an operation in which calls fail.
   template<typename Body>
   auto faulty( const Body& body ) const {
      struct Armed {
         Armed() { proveFaultsArmed( true ); }
         ~Armed() { proveFaultsArmed( false ); }
      } const armed;
      return body();
   }

   std::string path( char const* name ) const { return folder + "/" + name; }

   const std::string folder;
   const std::shared_ptr<Quarn::Platform::DebugHandler> owner;
   Quarn::Platform::DebugHandler& handler;
   // What the operation says beside its traces.
   std::string said;
};

// Does something of the library's and tells the outcome in a word or two. What is fatal and what is
// thrown is told by the caller.
struct Operation {
   char const* name;
   std::string ( *run )( Scene& scene );
   // The outcome when no call fails.
   char const* outcome;
   // What may stay open or changed after a failure, as the header says; null for nothing.
   char const* leaves = nullptr;
};

// One line of the table: the `nth` call of that name in the operation fails, for so many `times`,
// and then the operation has that outcome, and that text is in what it traces or throws.
struct Pair {
   char const* call;
   int error;
   int nth;
   int times;
   const Operation& operation;
   char const* outcome;
   char const* text;
};

std::span<const Pair> systemCallPairs();

// The operations, of which each comes to its outcome when nothing fails.
extern const Operation createBase, createBaseInVain, init, lateInit, forkReinit, loop, watchFd,
      watchFdAnew, watchReads, watchWrites, watchTaskWrites, watchTaskFd, unwatch, frameworkFd,
      frameworkLoop;
extern const Operation openStream, stream, brokenStream, closeStream, textReport, printContext,
      startRender, render, renderTwice, renderTwiceUncompared, largeReport, nameFilter, trace,
      traceItems, traceFormat, noTraceFormat;
extern const Operation mkpath, trimpath, touch, fileWrite, fileWriteQuietly, fileRead, fileExists,
      fileRemove, fileSize, fdSize, truncateFile, getCwd;
extern const Operation openDir, moveDir, reopenDir, readDir, findFiles, findUntypedFiles, closeDir;
extern const Operation lock, release, dropLock, lockPid;
extern const Operation cmdline, title, startTime, socketPid, typeName, coreFilter, symbol, mappings,
      plugin;
extern const Operation socketHere, socketThere, socketNotBack, socketOfThread, bindSocket,
      sendBuffer, mostSendBuffer, enterNamespace;

} // namespace prove
