// A child process with network namespaces of its own, where the system permits that.

#pragma once

#include <functional>
#include <string>

#include <sys/types.h>

namespace testing_support {

// Runs `body` in a forked child that has its own /var/run/netns with one file in it, "default": a
// network namespace made for the purpose. The child lives in another one, also made for it. It may
// do there what takes privilege, also mount. Expectations of the body count for the running test.
//
// The result is why the system refuses such a child, or empty when the body ran.
std::string inNetworkNamespaces( const std::function<void()>& body );

// The same, except that the child has stayed in the network namespace of this process, which it is
// not permitted to enter.
std::string inNetworkNamespaceOfNoReturn( const std::function<void()>& body );

// Runs `body` in a forked child; its expectations count for the running test.
void inForkedChild( const std::function<void()>& body );

// Takes from this thread the privileges that its capabilities give.
void dropCapabilities();

// What identifies the namespace that such a file stands for; 0 when it cannot be read.
ino_t namespaceOf( const std::string& file );
// The network namespace of the calling thread.
ino_t ownNetworkNamespace();

// How many descriptors the process has open.
unsigned openDescriptors();

} // namespace testing_support
