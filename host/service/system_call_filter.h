// The wall that every process for strangers' documents stands behind, whatever else confines it.
#pragma once

namespace ternview {

/**
 * Refuses with EPERM, for good and in all later children too, what reading and laying out a document does not need: sockets but
 * for connected pairs, shutting sockets that others share, new programs, tracing other processes, signals to them and setting
 * their priorities, memory, semaphores and queues that processes share by name, another user, other namespaces and mounts, input
 * for the terminal, and calling off the end with the parent. Descriptors that are open already stay usable.
 *
 * @return false when the kernel has no system-call filters, or may not give one
 */
bool refuseSystemCalls();

/// Enters a user namespace in which the process is the user that it was outside.
/// @param others flags of the namespaces to enter with it
/// @return false when the system allows none
bool enterUserNamespace(int others);

/**
 * Leaves the network where a process without system-call filters can: it enters a network namespace of its own, in a user
 * namespace with the same user if need be.
 *
 * @return false when the system allows neither
 */
bool leaveNetwork();

}  // namespace ternview
