#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define ANDROID_SOCKET_ENV_PREFIX "ANDROID_SOCKET_"
#define ANDROID_SOCKET_DIR "/dev/socket"

#define ANDROID_SOCKET_NAMESPACE_ABSTRACT 0
#define ANDROID_SOCKET_NAMESPACE_RESERVED 1
#define ANDROID_SOCKET_NAMESPACE_FILESYSTEM 2

// The descriptor that init (or a launcher) handed over in ANDROID_SOCKET_<name>, or -1.
int android_get_control_socket(const char* name);
// Connects `fd` to the local socket `name`; returns fd or -1.
int socket_local_client_connect(int fd, const char* name, int namespaceId, int type);
// socket() + socket_local_client_connect(); returns the new descriptor or -1.
int socket_local_client(const char* name, int namespaceId, int type);

#ifdef __cplusplus
}
#endif
