#ifndef PPLCTL_CONFIG_FILE_H
#define PPLCTL_CONFIG_FILE_H

#include <string>
#include <vector>

class SAttr;

// The parts of the configuration check that look at the file's text rather
// than at the values the service reads: bytes that hide keys from it, lines
// its attribute store skips, and SERV_PPL_ keys it never reads.
namespace configfile {

// A value as a problem line shows it: bytes outside printable ASCII as \xHH,
// and a password's characters as '*' (only where its odd bytes sit shows).
std::string Shown(const std::string& key, const std::string& value);

// Whether the key belongs to the service (SERV_PPL_, in any case).
bool IsServiceKey(const std::string& key);

// A byte-order mark, NUL bytes, control bytes and lines the store skips;
// ini holds the file as the service loaded it.
void CheckText(const std::string& text, SAttr& ini, std::vector<std::string>* problems);

// Every SERV_PPL_ key the service never reads, with the nearest key it does.
void CheckUnknownKeys(SAttr& ini, std::vector<std::string>* problems);

}  // namespace configfile

#endif
