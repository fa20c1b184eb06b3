// The tool's set-log-mask requests: recorded, and merged with the capture's own masks. Knows bytes
// alone; framing and log lines are all that it calls.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "diag/diag_commands.h"
#include "diag/hdlc.h"

// What the tool asked for, by equipment id. Record and Merge run on the relay thread alone; all
// else may be called by any thread. One mutex, taken last and held for copies only.
class ToolLogRequests {
  public:
    // The one that the daemon uses: requests outlive the connection that they came by.
    static ToolLogRequests& GetInstance();

    ToolLogRequests() = default;
    ToolLogRequests(const ToolLogRequests&) = delete;
    ToolLogRequests& operator=(const ToolLogRequests&) = delete;

    // Records the framed set-log-mask request [frame, frame + len), len below kDiagAreaSize.
    // Returns its equipment id, or -1 when that is none of 0 to 13 and nothing but the id was
    // recorded.
    int Record(const char* frame, int len);

    // Frames the last request for an equipment id (0 to 13), ORed with command[0, commandLen), the
    // capture's own for that id, both un-escaped. Returns the framed length, or 0 when either is
    // empty: the tool's frame can then go to the modem as it is.
    int Merge(int equipmentId, const char* command, int commandLen,
              char (&framed)[kDiagAreaSize]) const;

    // Copies the last request of all, un-escaped and without check sequence and 0x7E, and says its
    // length, below 1 when it is empty or none was recorded. False when its equipment id is none of
    // 0 to 13.
    bool CopyLast(char (&request)[kDiagAreaSize], int& len) const;

    // Copies the mask bytes of the last request for an equipment id, at most room. Returns the
    // length of that request.
    int CopyMask(int equipmentId, char* mask, int room) const;

    // Whether the tool's last request for the equipment id, any number, had a bit set.
    bool IsNeeded(int equipmentId) const {
        return equipmentId < kEquipmentIds && isAPLogPacketNeed[equipmentId];
    }

    // Whether the tool wants any log code, and whether it wants this one. No lock.
    bool IsAnyCodeWanted() const { return msIsFTMLogEnable; }
    bool IsToolCode(uint32_t code) const;

  private:
    static constexpr int kToolLogIds = 4095;  // codes listed per equipment id
    static constexpr int kLogItems = 4096;    // items per equipment id

    bool NoteToolCodes(const char* request, int len, int equipmentId);
    void EmptyToolCodes(int equipmentId);

    std::atomic<bool> msIsFTMLogEnable{false};                  // any code wanted at all
    std::atomic<bool> isAPLogPacketNeed[kEquipmentIds] = {};    // last request had a bit set
    uint32_t numToolNeededLogId[kEquipmentIds] = {};            // entries of the list; relay thread
    uint32_t toolNeededLogId[kEquipmentIds][kToolLogIds] = {};  // in the order seen; relay thread
    std::atomic<uint32_t> mToolNeededLogBits[kEquipmentIds][kLogItems / 32] = {};

    mutable std::mutex mRequestMutex;
    char data_for_ap_set_log_mask[kEquipmentIds][kDiagAreaSize] = {};  // raw; mRequestMutex
    int32_t data_length_for_ap_set_log_mask[kEquipmentIds] = {};       // bytes; mRequestMutex
    uint32_t msCurrentEquipmentId = 0;  // of the last request; mRequestMutex
};
