#include "tools/host/RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace android::tools {

int openRegularFile(const std::string& path, uint64_t maxBytes, std::string* error) {
    // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *error = path + ": cannot open the file: " + strerror(errno);
        return -1;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        *error = path + ": cannot read the file: " + strerror(errno);
    } else if (S_ISDIR(st.st_mode)) {
        *error = path + ": a directory, not a file";
    } else if (!S_ISREG(st.st_mode)) {
        *error = path + ": not a regular file (a FIFO, a socket or a device): give a file";
    } else if (static_cast<uint64_t>(st.st_size) > maxBytes) {
        *error = path + ": " + std::to_string(st.st_size) + " bytes, more than the " +
                std::to_string(maxBytes) + " bytes read from such a file";
    } else {
        // Reads of a regular file do not block; clearing the flag is for form.
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        return fd;
    }
    close(fd);
    return -1;
}

bool readRegularFile(const std::string& path, uint64_t maxBytes, std::string* text,
                     std::string* error) {
    const int fd = openRegularFile(path, maxBytes, error);
    if (fd < 0) return false;
    text->clear();
    char buffer[1 << 16];
    bool ok = true;
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *error = path + ": cannot read the file: " + strerror(errno);
            ok = false;
            break;
        }
        if (n == 0) break;
        // The file may grow after the size was checked.
        if (text->size() + static_cast<size_t>(n) > maxBytes) {
            *error = path + ": more than the " + std::to_string(maxBytes) +
                    " bytes read from such a file";
            ok = false;
            break;
        }
        text->append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return ok;
}

} // namespace android::tools
