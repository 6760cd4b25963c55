#pragma once
// Least privilege after start-up: the daemon parses untrusted frames from the wire, so once
// the steps that need full privilege are done it keeps only what the running daemon uses.

namespace Platform {

// Drops every privilege the daemon does not use from here on, for good. Call it before any
// thread is started: on Linux capabilities belong to threads and new threads inherit the
// sets of the thread that starts them. Returns 0, or the OS error code of the step that failed.
int DropPrivileges();

}  // namespace Platform
