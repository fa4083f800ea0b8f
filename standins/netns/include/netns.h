/* Network namespaces by name. Usable from C and C++. */

#pragma once

#ifdef __cplusplus
/* The name of the system's default namespace. */
inline constexpr char DEFAULT_NS[] = "default";
extern "C" {
#else
static const char DEFAULT_NS[] __attribute__( ( unused ) ) = "default";
#endif

/* Moves the calling thread into the network namespace `name`, a file of /var/run/netns. "default"
 * is the namespace that process 1 lives in when there is no file of that name. Other threads stay
 * where they are. `nstype` is what setns(2) takes: CLONE_NEWNET to insist on a network namespace, 0
 * for any.
 *
 * A thread that is there already is moved all the same, so success means that the thread may move.
 *
 * Gives 0, or -1 with errno set and the reason in netnsGetTracebuffer(). EINVAL: the name is null,
 * empty, "." or "..", or holds anything but letters, digits, '_', '.' and '-'. ENAMETOOLONG: it has
 * more than 255 bytes. Otherwise what open(2) and setns(2) give: ENOENT for an unknown name, EPERM
 * without CAP_SYS_ADMIN.
 *
 * Thread: any.
 */
__attribute__( ( visibility( "default" ) ) ) int setnsByName( char const* name, int nstype );

/* Why the last setnsByName() of this thread that failed did so; empty before the first failure.
 * The text belongs to the library and holds until the thread's next failure or its end.
 */
__attribute__( ( visibility( "default" ) ) ) char const* netnsGetTracebuffer( void );

#ifdef __cplusplus
}
#endif
