// The daemon's answer to each routine of the catalogue is one row of a table: the routine's name and
// its handler. Each subsystem keeps its rows beside its code; registerRoutines walks them all and
// answers every routine that has no row as not supported.
//
// Handlers run on the manager's loop thread. Every handler learns who is asking from the socket
// (SO_PEERCRED in request.peer), never from the message.
#pragma once

#include <sys/types.h>

#include <span>

#include "ipc/dispatcher.h"

namespace gw::daemon {

class Manager;

struct RoutineHandler {
  const char* routine;
  ipc::Reply (*handle)(Manager&, const ipc::Request&);
};

// The user a request is about. A uid field in the message is honoured only when root asks (the login
// screen asks about the user who wants to log in); anyone else is answered about themselves, and the
// mismatch is logged (rate-limited).
uid_t subjectOf(const ipc::Request& request, Manager& manager);

std::span<const RoutineHandler> timeLimitRoutines();  // time_routines.cpp
std::span<const RoutineHandler> appRoutines();        // apps/app_routines.cpp
std::span<const RoutineHandler> webRoutines();        // web/web_routines.cpp
std::span<const RoutineHandler> bookmarkRoutines();   // web/bookmark_routines.cpp
std::span<const RoutineHandler> mailRoutines();       // mail/mail_routines.cpp
std::span<const RoutineHandler> eventRoutines();      // events/event_routines.cpp

}  // namespace gw::daemon
