#include "tools/sim/FrameTimesReader.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace android::tools::sim {
namespace {

// The field at `index` of a comma-, tab- or space-separated line, trimmed.
bool fieldAt(const std::string& line, size_t index, std::string* field) {
    const char* separators = line.find(',') != std::string::npos ? ","
            : line.find('\t') != std::string::npos               ? "\t"
                                                                 : " ";
    size_t start = 0;
    if (separators[0] == ' ') start = line.find_first_not_of(' ');
    for (size_t i = 0; start != std::string::npos; ++i) {
        size_t end = line.find_first_of(separators, start);
        if (i == index) {
            *field = line.substr(start, end == std::string::npos ? std::string::npos : end - start);
            const size_t a = field->find_first_not_of(" \t\"");
            const size_t b = field->find_last_not_of(" \t\"");
            *field = a == std::string::npos ? "" : field->substr(a, b - a + 1);
            return true;
        }
        if (end == std::string::npos) break;
        start = separators[0] == ' ' ? line.find_first_not_of(' ', end) : end + 1;
    }
    return false;
}

bool parseNumber(const std::string& text, double* value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    *value = strtod(text.c_str(), &end);
    return errno == 0 && *end == '\0' && std::isfinite(*value);
}

std::string millis(SimTime t) {
    char text[48];
    snprintf(text, sizeof(text), "%.4f ms", static_cast<double>(t) / 1e6);
    return text;
}

} // namespace

bool FrameTimesReader::open(std::string* error) {
    if (mSource.file.empty()) return true;
    return mLines.open(mSource.file, error);
}

bool FrameTimesReader::accept(SimTime at, const std::string& where) {
    if (at < 0) {
        // Named as the user wrote it: the time, and the offset only if one was given.
        mError = where + millis(at - mSource.offset) +
                (mSource.offset == 0 ? ""
                                     : " with offset_ms " + millis(mSource.offset) + " is " +
                                 millis(at) + ", which") +
                " is before the run's start (0 ms)";
        return false;
    }
    if (mHavePrevious && at <= mPrevious) {
        mError = where + millis(at) +
                (at == mPrevious ? " repeats the time of " : " comes before the time of ") +
                mPreviousWhere + " (" + millis(mPrevious) + "); times must increase";
        return false;
    }
    mHavePrevious = true;
    mPrevious = at;
    mPreviousWhere = where.substr(0, where.size() - 2);
    return true;
}

bool FrameTimesReader::parseLine(const std::string& line, SimTime* at) {
    std::string field;
    size_t index = mSource.columnIndex;
    if (!mHeaderSeen) {
        mHeaderSeen = true;
        if (!mSource.column.empty()) {
            // The header names the column.
            for (size_t i = 0; fieldAt(line, i, &field); ++i) {
                if (field == mSource.column) {
                    mColumn = i;
                    return false;
                }
            }
            mError = mLines.where() + "no column \"" + mSource.column + "\" in the header: " + line;
            return false;
        }
        double ignored = 0;
        if (fieldAt(line, index, &field) && !parseNumber(field, &ignored)) return false;
    }
    if (!mSource.column.empty()) index = mColumn;
    double value = 0;
    if (!fieldAt(line, index, &field)) {
        mError = mLines.where() + "no column " + std::to_string(index + 1) + " on this line";
        return false;
    }
    if (!parseNumber(field, &value)) {
        mError = mLines.where() + "\"" + field + "\" is not a number";
        return false;
    }
    const double ns = value * mSource.nanosPerUnit;
    if (std::fabs(ns) > 9e18) {
        mError = mLines.where() + field + " is out of range";
        return false;
    }
    *at = std::llround(ns) + mSource.offset;
    return accept(*at, mLines.where());
}

bool FrameTimesReader::next(SimTime* at) {
    if (!mError.empty()) return false;
    if (mSource.file.empty()) {
        if (mInlineIndex >= mSource.inlineTimes.size()) return false;
        *at = mSource.inlineTimes[mInlineIndex];
        const std::string where = "times_ms[" + std::to_string(mInlineIndex++) + "]: ";
        return accept(*at, where);
    }
    std::string line;
    while (mLines.next(&line)) {
        const size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == '#') continue;
        if (parseLine(line, at)) return true;
        if (!mError.empty()) return false;
    }
    mError = mLines.error();
    return false;
}

bool scanFrameTimes(FrameTimes* source, std::string* error) {
    FrameTimesReader reader(*source);
    if (!reader.open(error)) return false;
    source->count = 0;
    SimTime at = 0;
    while (reader.next(&at)) {
        if (source->count++ == 0) source->first = at;
        source->last = at;
    }
    if (!reader.error().empty()) {
        *error = reader.error();
        return false;
    }
    return true;
}

} // namespace android::tools::sim
