#ifndef PPL_SYSTEM_INI_H
#define PPL_SYSTEM_INI_H

#include <functional>
#include <sstream>
#include <string>

#include "PPLConfigKeys.h"
#include "PPL_Counter_Group.h"

class SAttr;

// The recorder's system configuration file as the service reads it: one
// load, and one way of reading each kind of value. The service and pplctl's
// check of a file both read through here, so that a disagreement between
// them can only be a fault in one place. Stateless; nothing here writes.
namespace ppl {

enum class IniLoad { Loaded, Missing, Unreadable };

// Loads the file at path into ini: its size is looked at, its bytes read at
// once and its records taken up to the first NUL byte (what follows is not
// seen). A file that exists but cannot be loaded (another module rewriting
// it) is tried once more. *text, when given, receives every byte read, NUL
// bytes included; *why, when the file was not loaded, what stood in the way.
IniLoad LoadSystemIni(SAttr& ini, const std::string& path, std::string* text = nullptr,
                      std::string* why = nullptr);

// The key of group or camera number: head, number in decimal, tail, composed
// in the caller's stream (the service keeps one for its keys).
std::string ComposeKey(std::stringstream& stream, const char* head, long number, const char* tail);

// A value as the service reads it: base 10, the leading digits of the text
// (0 when the key is missing or the text begins with none).
int ReadNumber(SAttr& ini, const std::string& key);
unsigned int ReadUnsigned(SAttr& ini, const std::string& key);

// Whether a camera index a group names has a counter: for the 3DPC counter
// any index of the camera mask, for LAPI cameras a channel.
bool NamesCounter(bool tdpc, long camera);

// Reads the settings keys of group g into record, in the service's order:
// the reset time cut to its field, the rest as numbers. After each key,
// read(step, key) runs (the service prints the value there). The first
// missing key ends the reading: false, with its name in *missing; the keys
// before it are in record.
bool ReadGroupSettings(SAttr& ini, std::stringstream& stream, unsigned int g,
                       _PPL_CAM_SETTINGS& record,
                       const std::function<void(SettingsKey, const std::string&)>& read,
                       std::string* missing);

// Copies text into a fixed field, cut to leave room for its terminator.
void CopyField(char* field, size_t size, const char* text);

}  // namespace ppl

#endif
