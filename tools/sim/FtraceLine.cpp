#include "tools/sim/FtraceLine.h"

#include <cctype>
#include <cstdlib>

namespace android::tools::sim {
namespace {

bool isDigit(char c) {
    return isdigit(static_cast<unsigned char>(c)) != 0;
}

// "123.456789:" as seconds; digits only (no sign, exponent, inf or nan), and
// few enough that the nanoseconds fit in 64 bits.
bool parseSeconds(const std::string& word, double* seconds) {
    if (word.size() < 2 || word.back() != ':') return false;
    size_t i = 0;
    while (i < word.size() && isDigit(word[i])) ++i;
    if (i == 0 || i > 9) return false;
    if (word[i] == '.') {
        const size_t dot = i++;
        while (i < word.size() && isDigit(word[i])) ++i;
        if (i == dot + 1) return false;
    }
    if (i != word.size() - 1) return false;
    *seconds = strtod(word.c_str(), nullptr);
    return true;
}

} // namespace

bool parseEventLine(const std::string& line, EventLine* out) {
    // The CPU column: "[001]".
    size_t cpu = std::string::npos;
    for (size_t i = line.find('['); i != std::string::npos; i = line.find('[', i + 1)) {
        size_t j = i + 1;
        while (j < line.size() && isDigit(line[j])) ++j;
        if (j > i + 1 && j < line.size() && line[j] == ']') {
            cpu = i;
            break;
        }
    }
    if (cpu == std::string::npos) return false;
    std::string head = line.substr(0, cpu);
    while (!head.empty() && head.back() == ' ') head.pop_back();
    // The TGID column: "(  612)" or "(-----)" after the task. Only that, so a
    // thread name with parentheses in it stays whole.
    if (!head.empty() && head.back() == ')') {
        const size_t open = head.rfind('(');
        bool tgid = open != std::string::npos && open + 2 < head.size();
        for (size_t i = open + 1; tgid && i + 1 < head.size(); ++i) {
            tgid = isDigit(head[i]) || head[i] == ' ' || head[i] == '-';
        }
        if (tgid) {
            head.resize(open);
            while (!head.empty() && head.back() == ' ') head.pop_back();
        }
    }
    const size_t dash = head.rfind('-');
    if (dash == std::string::npos || dash + 1 == head.size() || head.size() - dash > 10) {
        return false;
    }
    for (size_t i = dash + 1; i < head.size(); ++i) {
        if (!isDigit(head[i])) return false;
    }
    out->tid = static_cast<int>(strtol(head.c_str() + dash + 1, nullptr, 10));
    const size_t first = head.find_first_not_of(' ');
    out->task = head.substr(first, dash - first);
    size_t pos = line.find(']', cpu) + 1;
    // Optional irq flags ("d..2"), then "seconds:".
    for (int token = 0; token < 2; ++token) {
        pos = line.find_first_not_of(' ', pos);
        if (pos == std::string::npos) return false;
        const size_t end = line.find(' ', pos);
        const std::string word = line.substr(pos, end == std::string::npos ? end : end - pos);
        if (parseSeconds(word, &out->seconds)) {
            pos = end;
            break;
        }
        if (token == 1 || end == std::string::npos) return false;
        pos = end;
    }
    if (pos == std::string::npos) return false;
    pos = line.find_first_not_of(' ', pos);
    const size_t colon = pos == std::string::npos ? pos : line.find(": ", pos);
    if (colon == std::string::npos) {
        if (pos != std::string::npos && line.back() == ':') {
            out->event = line.substr(pos, line.size() - pos - 1);
            out->payload.clear();
            return true;
        }
        return false;
    }
    out->event = line.substr(pos, colon - pos);
    out->payload = line.substr(colon + 2);
    return true;
}

} // namespace android::tools::sim
