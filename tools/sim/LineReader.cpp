#include "tools/sim/LineReader.h"

#include "tools/sim/InputFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace android::tools::sim {
namespace {

constexpr unsigned kChunk = 1 << 16;

} // namespace

LineReader::~LineReader() {
    if (mFile != nullptr) gzclose(mFile);
}

bool LineReader::open(const std::string& path, std::string* error) {
    mPath = path == "-" ? "stdin" : path;
    errno = 0;
    if (path == "-") {
        // A copy of the descriptor: gzclose closes the one it was given.
        const int fd = dup(STDIN_FILENO);
        mFile = fd < 0 ? nullptr : gzdopen(fd, "rb");
        if (mFile == nullptr && fd >= 0) ::close(fd);
    } else {
        const int fd = openRegularFile(path, kMaxLineFileBytes, error);
        if (fd < 0) return false;
        mFile = gzdopen(fd, "rb");
        if (mFile == nullptr) ::close(fd);
    }
    if (mFile == nullptr) {
        *error = mPath + ": cannot open the file: " + strerror(errno != 0 ? errno : ENOENT);
        return false;
    }
    gzbuffer(mFile, kChunk);
    return true;
}

std::string LineReader::where() const {
    return mPath + " line " + std::to_string(mLine) + ": ";
}

size_t LineReader::readChunk() {
    if (mEof) return 0;
    if (mBytesRead >= kMaxInflatedBytes) {
        mError = mPath + " after line " + std::to_string(mLine) + ": more than " +
                std::to_string(kMaxInflatedBytes) + " bytes (after gzip): too large to read";
        mEof = true;
        return 0;
    }
    const size_t old = mBuffer.size();
    mBuffer.resize(old + kChunk);
    const int n = gzread(mFile, mBuffer.data() + old, kChunk);
    if (n < 0) {
        int code = 0;
        const char* message = gzerror(mFile, &code);
        mError = mPath + " after line " + std::to_string(mLine) +
                ": cannot read: " + (code == Z_ERRNO ? strerror(errno) : message);
        mBuffer.resize(old);
        mEof = true;
        return 0;
    }
    mBuffer.resize(old + static_cast<size_t>(n));
    mBytesRead += static_cast<uint64_t>(n);
    if (n == 0) {
        mEof = true;
        // zlib reports a gzip stream cut short only at its end.
        int code = 0;
        const char* message = gzerror(mFile, &code);
        if (code != Z_OK && code != Z_BUF_ERROR) {
            mError = mPath + " after line " + std::to_string(mLine) + ": " + message;
        } else if (code == Z_BUF_ERROR) {
            mError = mPath + " after line " + std::to_string(mLine) +
                    ": the compressed file is cut short";
        }
    }
    return static_cast<size_t>(n);
}

const std::string& LineReader::peek() {
    if (mBuffer.empty() && mPos == 0 && readChunk() > 0) mHeadUnchecked = true;
    return mBuffer;
}

long LineReader::readBytes(uint8_t* out, size_t size, std::string* error) {
    if (mPos == mBuffer.size()) {
        mBuffer.clear();
        mPos = 0;
        if (readChunk() == 0) {
            if (!mError.empty()) *error = mError;
            return mError.empty() ? 0 : -1;
        }
    }
    const size_t n = std::min(size, mBuffer.size() - mPos);
    memcpy(out, mBuffer.data() + mPos, n);
    mPos += n;
    return static_cast<long>(n);
}

bool LineReader::fill() {
    if (mEof) return false;
    mBuffer.erase(0, mPos);
    mPos = 0;
    const size_t old = mBuffer.size();
    const size_t n = readChunk();
    return n > 0 && isText(old, n);
}

bool LineReader::isText(size_t from, size_t size) {
    if (memchr(mBuffer.data() + from, '\0', size) == nullptr) return true;
    mError = mPath + " near line " + std::to_string(mLine + 1) +
            ": a NUL byte: this is a binary file, not text";
    mEof = true;
    mBuffer.clear();
    mPos = 0;
    return false;
}

bool LineReader::next(std::string* line) {
    if (!mError.empty()) return false;
    if (mHeadUnchecked) {
        mHeadUnchecked = false;
        if (!isText(0, mBuffer.size())) return false;
    }
    for (;;) {
        const size_t end = mBuffer.find('\n', mPos);
        if (end != std::string::npos) {
            line->assign(mBuffer, mPos, end - mPos);
            mPos = end + 1;
            break;
        }
        if (mBuffer.size() - mPos > kMaxLine) {
            mError = mPath + " line " + std::to_string(mLine + 1) + ": longer than " +
                    std::to_string(kMaxLine) + " bytes: not a text file of lines";
            return false;
        }
        if (!fill()) {
            if (!mError.empty() || mPos >= mBuffer.size()) return false;
            // The last line, without an end of line.
            line->assign(mBuffer, mPos, std::string::npos);
            mPos = mBuffer.size();
            break;
        }
    }
    if (++mLine > kMaxLines) {
        mError = mPath + ": more than " + std::to_string(kMaxLines) + " lines: too long to read";
        return false;
    }
    // CRLF, and CRCRLF from a capture written through a terminal twice.
    while (!line->empty() && line->back() == '\r') line->pop_back();
    return true;
}

} // namespace android::tools::sim
