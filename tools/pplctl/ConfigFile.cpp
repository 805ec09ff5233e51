#include "ConfigFile.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <sstream>

#include "PPLSystemIni.h"
#include "SAttr.h"

namespace configfile {

namespace {

const char kByteOrderMark[] = "\xEF\xBB\xBF";
const char kBlanks[] = " \t\r\n\f\v";

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(kBlanks), e = s.find_last_not_of(kBlanks);
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

std::string Upper(std::string s) {
    for (char& c : s)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return s;
}

std::string Join(const std::vector<std::string>& words) {
    std::string all;
    for (const auto& w : words)
        all += (all.empty() ? "" : ", ") + w;
    return all;
}

// Every key the service reads: its groups' (group 0 only) and the LAPI
// channels' camera keys (the 3DPC counter uses camera 0's).
const std::vector<std::string>& KnownKeys() {
    static const std::vector<std::string> keys = [] {
        std::vector<std::string> k = {ppl::kKeyGroupCount, ppl::kKeyEnable, ppl::kKeyCameraKind};
        std::stringstream stream;
        auto add = [&](const char* head, int n, const char* tail) {
            k.push_back(ppl::ComposeKey(stream, head, n, tail));
        };
        for (unsigned int g = 0; g < ppl::kMaxGroups; ++g) {
            add(ppl::kInCameraHead, g, ppl::kCameraSideTail);
            add(ppl::kOutCameraHead, g, ppl::kCameraSideTail);
            add(ppl::kStayinHead, g, ppl::kOverTail);
            add(ppl::kStayinHead, g, ppl::kUnderTail);
            for (const char* tail : ppl::kSettingsTails)
                add(ppl::kSettingsHead, g, tail);
        }
        for (int n = 0; n < ppl::kLapiChannels; ++n)
            for (const char* tail : ppl::kCameraTails)
                add(ppl::kCameraHead, n, tail);
        return k;
    }();
    return keys;
}

size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string Nearest(const std::string& key) {
    std::string best;
    size_t best_distance = key.size();
    for (const auto& known : KnownKeys()) {
        size_t d = EditDistance(Upper(key), known);
        if (d < best_distance)
            best = known, best_distance = d;
    }
    // Farther than a third of the key is no longer a misspelling.
    return best_distance * 3 <= key.size() ? best : "";
}

// The keys the service would have seen but for the bytes of the file, and
// those it sees with another value: parsed again without them.
void Hidden(SAttr& ini, SAttr& intended, std::vector<std::string>* unseen,
            std::vector<std::string>* cut) {
    for (const auto& kv : intended.GetRawData()) {
        if (!IsServiceKey(kv.first))
            continue;
        const char* seen = ini.GetKeyValue(kv.first.c_str());
        if (seen == nullptr)
            unseen->push_back(kv.first);
        else if (kv.second != seen)
            cut->push_back(kv.first + " as \"" + Shown(kv.first, seen) + "\"");
    }
}

// The service reads the file as one zero-terminated text: nothing after the
// first NUL byte reaches it.
void CheckNul(const std::string& text, SAttr& ini, std::vector<std::string>* problems) {
    size_t first = text.find('\0');
    if (first == std::string::npos)
        return;
    std::string without = text;
    without.erase(std::remove(without.begin(), without.end(), '\0'), without.end());
    SAttr intended('=', "\r\n", "\n", nullptr);
    intended.LoadMemory(without.c_str());
    std::vector<std::string> unseen, cut;
    Hidden(ini, intended, &unseen, &cut);
    if (unseen.empty() && cut.empty())
        return;
    size_t line = 1 + std::count(text.begin(), text.begin() + first, '\n');
    std::string what = !unseen.empty() ? "does not see " + Join(unseen) : "";
    if (!cut.empty())
        what += (what.empty() ? "reads " : ", and reads ") + Join(cut);
    problems->push_back("the file holds NUL bytes (the first in line " + std::to_string(line) +
                        "): the service reads nothing after the first one, so it " + what +
                        "; remove them.");
}

// A byte-order mark becomes part of the first key.
void CheckByteOrderMark(const std::string& text, SAttr& ini, std::vector<std::string>* problems) {
    if (text.compare(0, 3, kByteOrderMark) != 0)
        return;
    SAttr intended('=', "\r\n", "\n", nullptr);
    intended.LoadMemory(text.substr(3).c_str());
    std::vector<std::string> unseen, cut;
    Hidden(ini, intended, &unseen, &cut);
    if (unseen.empty())
        return;
    problems->push_back(
        "the file begins with a UTF-8 byte-order mark: the service reads it as part "
        "of the first key, \"\\xEF\\xBB\\xBF" +
        unseen.front() + "\", so it does not see " + unseen.front() +
        "; save the file without the mark.");
}

bool LooksLikeText(const std::string& text) {
    for (unsigned char c : text)
        if (c != 0 && c < 0x20 && strchr(kBlanks, c) == nullptr)
            return false;
    return true;
}

// Lines the store skips (no "=", nothing on one side) and keys set twice
// to different values.
// A line beginning with '#' or ';' and holding no "=" is skipped as its
// writer meant: the file has no comments, but such a line works as one.
void CheckLines(const std::string& text, SAttr& ini, std::vector<std::string>* problems) {
    std::istringstream in(text.substr(0, text.find('\0')));
    std::string line;
    std::map<std::string, std::pair<int, std::string>> first;  // key: line, value
    for (int number = 1; std::getline(in, line); ++number) {
        std::string trimmed = Trim(line);
        size_t eq = trimmed.find('=');
        if (trimmed.empty() || (eq == std::string::npos && strchr("#;", trimmed[0]) != nullptr))
            continue;
        std::string where = "line " + std::to_string(number) + " \"" + trimmed + "\": ";
        if (eq == std::string::npos) {
            problems->push_back(where + "no \"=\"; the service skips the line.");
            continue;
        }
        std::string key = Trim(trimmed.substr(0, eq)), value = Trim(trimmed.substr(eq + 1));
        if (!ini.HasKey(key.c_str())) {
            problems->push_back(where + "empty key or value; the service skips the line.");
        } else if (IsServiceKey(key) && !first.emplace(key, std::make_pair(number, value)).second &&
                   first[key].second != value) {
            problems->push_back(key + " is set in line " + std::to_string(first[key].first) +
                                " and again in line " + std::to_string(number) +
                                ": the service takes the last, \"" +
                                Shown(key, ini.GetKeyValue(key.c_str())) + "\".");
        }
    }
}

}  // namespace

std::string Shown(const std::string& key, const std::string& value) {
    bool secret = Upper(key).find("PAS") != std::string::npos;
    std::string shown;
    static const char kHex[] = "0123456789ABCDEF";
    for (unsigned char c : value) {
        if (c < 0x20 || c >= 0x7f)
            shown += std::string("\\x") + kHex[c >> 4] + kHex[c & 15];
        else
            shown += secret ? '*' : static_cast<char>(c);
    }
    return shown;
}

bool IsServiceKey(const std::string& key) {
    const std::string prefix = ppl::kKeyPrefix;
    return Upper(key.substr(0, prefix.size())) == prefix;
}

void CheckText(const std::string& text, SAttr& ini, std::vector<std::string>* problems) {
    CheckByteOrderMark(text, ini, problems);
    CheckNul(text, ini, problems);
    if (!LooksLikeText(text)) {
        problems->push_back(
            "the file is not a text file (it holds control bytes): the service takes only "
            "what reads as KEY=VALUE lines.");
        return;
    }
    CheckLines(text, ini, problems);
}

void CheckUnknownKeys(SAttr& ini, std::vector<std::string>* problems) {
    const auto& known = KnownKeys();
    for (const auto& kv : ini.GetRawData()) {
        if (!IsServiceKey(kv.first) ||
            std::find(known.begin(), known.end(), kv.first) != known.end())
            continue;
        std::string nearest = Nearest(kv.first);
        problems->push_back(kv.first + "=" + Shown(kv.first, kv.second) +
                            ": the service never reads this key" +
                            (nearest.empty() ? "." : "; did you mean " + nearest + "?"));
    }
}

}  // namespace configfile
