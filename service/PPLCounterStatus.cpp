// The status file (live state, about once a second) and the record file.
#include <sys/stat.h>

#include "OwnedFile.h"
#include "PPLCounter.h"
#include "PPLSystemIni.h"
#include "SAttr.h"
#include "ShowLog.h"
#include "Tarn_3DPC_Counter.h"
#include "UBrand_PPL_Counter.h"
#include "UFile.h"
#include "ULog.h"

using ppl::ComposeKey;

namespace {
const char* const kConnect = "connect";
const char* const kDisconnect = "disconnect";
}  // namespace

// States follow the direction of the connected counters, not the end of the
// pair they were found at.
void PPLCounter::MarkConnected(Abstract_PPL_Counter* counter, bool connected, const char*& in_state,
                               const char*& out_state) {
    if (counter == nullptr || !connected)
        return;
    switch (counter->get_dir()) {
        case PPL_DIR_DUAL:
            in_state = kConnect;
            out_state = kConnect;
            break;
        case PPL_DIR_IN:
            in_state = kConnect;
            break;
        case PPL_DIR_OUT:
            out_state = kConnect;
            break;
        default:
            break;
    }
}

void PPLCounter::CameraStates(PPL_Counter_Group* group, const char*& in_state,
                              const char*& out_state) {
    in_state = kDisconnect;
    out_state = kDisconnect;
    std::pair<int, int> pair;
    group->get_cam_pair(pair);
    for (int camera : {pair.first, pair.second}) {
        if (camera < 0)
            continue;
        if (use_3dpc == 1) {
            MarkConnected(counter_3dpc, counter_3dpc->is_connect(), in_state, out_state);
        } else if (UBrand_PPL_Counter* lapi = LapiCounter(camera)) {
            MarkConnected(lapi, lapi->is_connect(), in_state, out_state);
        }
    }
}

// Whatever another user put at the path (a link, a FIFO, a directory, a
// file of theirs) is moved aside with one line, so that the status file can
// be written and nothing of theirs is deleted or written through. "" unless
// something not the service's own stays: then why.
std::string PPLCounter::ClaimStatusPath() {
    const char* path = where.status_ini.c_str();
    struct stat st;
    if (lstat(path, &st) != 0 || OwnedFile::WhyNotOwn(st).empty())
        return "";
    std::string aside;
    if (!OwnedFile::MoveAside(path, &aside)) {
        const std::string err = UError::Text(errno);
        return OwnedFile::Describe(st) + " that cannot be moved aside: " + err;
    }
    ShowLog("PPLCounter::UpdateStatus(), moved %s at %s aside to %s\n",
            OwnedFile::Describe(st).c_str(), path, aside.c_str());
    return "";
}

// Keys others put in the file are kept, but only from a file that is the
// service's own; whatever else stays at the path reads as no file and is
// said once.
void PPLCounter::LoadStatus(SAttr& status) {
    std::string why = ClaimStatusPath();
    if (why.empty()) {
        std::string text;
        OwnedFile::Read read =
            OwnedFile::Load(where.status_ini, ppl::kStatusIniMaxBytes, &text, &why);
        if (read == OwnedFile::Read::Ok)
            status.LoadMemory(text.c_str());
        if (read != OwnedFile::Read::Refused)
            why.clear();
    }
    if (!why.empty() && why != status_refusal)
        ShowLog("PPLCounter::UpdateStatus(), ignoring %s: %s\n", where.status_ini.c_str(),
                why.c_str());
    status_refusal = why;
}

void PPLCounter::UpdateStatus() {
    SAttr status('=', "\r\n", "\n", where.status_ini.c_str());
    LoadStatus(status);
    for (uint32_t g = 0; g < group_num; ++g) {
        PPL_Counter_Group* group = groups[g];
        status.SetIntValue("PPL.Enable", enable, 10);
        status.SetIntValue(ComposeKey(status_key_stream, "PPL.In", g, ".Count").c_str(),
                           group->get_total_cam_in_count(), 10);
        status.SetIntValue(ComposeKey(status_key_stream, "PPL.Out", g, ".Count").c_str(),
                           group->get_total_cam_out_count(), 10);
        status.SetIntValue(ComposeKey(status_key_stream, "PPL.StayIn", g, ".Count").c_str(),
                           group->get_total_cam_stayin_count(), 10);
        if (reload_config) {
            // Limits change only on a reload; other writes keep the file's.
            std::pair<int, int> limits;
            {
                std::lock_guard<std::mutex> guard(alarm_lock);
                limits = stayin_limits[g];
            }
            status.SetIntValue(ComposeKey(status_key_stream, "PPL.StayIn", g, ".Over").c_str(),
                               limits.first, 10);
            status.SetIntValue(ComposeKey(status_key_stream, "PPL.StayIn", g, ".Under").c_str(),
                               limits.second, 10);
        }
        status.SetKeyValue(ComposeKey(status_key_stream, "PPL.StayIn", g, ".Status").c_str(),
                           stayin_over_latched ? "Over" : "Under");
        const char* in_state;
        const char* out_state;
        CameraStates(group, in_state, out_state);
        status.SetKeyValue(ComposeKey(status_key_stream, "PPL.In", g, ".Status").c_str(), in_state);
        status.SetKeyValue(ComposeKey(status_key_stream, "PPL.Out", g, ".Status").c_str(),
                           out_state);
    }
    // Replaced whole, never rewritten in place: a reader never sees half a
    // file, and nothing at the path is written through.
    std::string text;
    status.SaveMemory(text, true, true);
    OwnedFile::Replace(where.status_ini, text, ppl::kStatusIniMode);
}

// Kept ready for use; the service itself never calls it.
void PPLCounter::UpdateRecordIni(unsigned int group) {
    SAttr record('=', "\r\n", "\n", where.record_ini.c_str());
    if (UFile::Exist(where.record_ini.c_str()))
        record.LoadFile(nullptr);
    PPL_Counter_Group* grp = groups[group];
    record.SetIntValue(ComposeKey(record_key_stream, "PPL.Record.In", group, ".Count").c_str(),
                       grp->get_in_count(), 10);
    record.SetIntValue(ComposeKey(record_key_stream, "PPL.Record.Out", group, ".Count").c_str(),
                       grp->get_out_count(), 10);
    record.SetIntValue(ComposeKey(record_key_stream, "PPL.Record.StayIn", group, ".Count").c_str(),
                       grp->get_stayin_count(), 10);
    record.SetIntValue(ComposeKey(record_key_stream, "PPL.Record.Cam.In", group, ".Count").c_str(),
                       grp->get_total_cam_in_count(), 10);
    record.SetIntValue(ComposeKey(record_key_stream, "PPL.Record.Cam.Out", group, ".Count").c_str(),
                       grp->get_total_cam_out_count(), 10);
    record.SaveFile(nullptr, true, true);
}

// Counts of a fresh service come from what the cameras report; nothing is
// restored from the record file.
bool PPLCounter::ReadRecordIni() {
    return true;
}
