// Random (version 4) UUIDs.
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include "tarvex_uuid.h"

namespace {

bool read_all(int fd, unsigned char *buffer, size_t size)
{
    size_t done = 0;
    while (done < size) {
        ssize_t n = read(fd, buffer + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool random_bytes(unsigned char *buffer, size_t size)
{
    size_t done = 0;
    while (done < size) {
        ssize_t n = getrandom(buffer + done, size - done, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break; // kernel without getrandom(2): try the device
        done += static_cast<size_t>(n);
    }
    if (done == size)
        return true;
    int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = read_all(fd, buffer, size);
    close(fd);
    return ok;
}

} // namespace

extern "C" {

int tarvex_uuid_create(tarvex_uuid_t *uuid)
{
    if (uuid == nullptr || !random_bytes(uuid->binary, sizeof uuid->binary))
        return -1;
    unsigned char *b = uuid->binary;
    b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40); // version 4
    b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80); // RFC 4122 variant
    snprintf(uuid->text, sizeof uuid->text,
             "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0],
             b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12],
             b[13], b[14], b[15]);
    return 0;
}

} // extern "C"
