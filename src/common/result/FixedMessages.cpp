// SPDX-License-Identifier: GPL-3.0-or-later
#include "common/result/FixedMessages.h"

#include <utility>

namespace {

// Rows are inserted in this order; a key that appears twice keeps its later text.
const std::pair<int, const char*> kRows[] = {
    // Firmware update and flash of controllers, switches and the enclosure.
    {1537, "Firmware update failed. The update package could not be opened."},
    {1538, "Firmware update failed. The update package is not valid for the target."},
    {1539, "Firmware update failed. Flashing the firmware image failed."},
    {1540, "Firmware update failed. The target did not become ready after flashing."},
    {1781, "Firmware update failed. The enclosure rejected the update request."},
    // Controller access.
    {2054, "Authentication failed. For instance, user name or password error."},
    // LAN-over-USB set-up.
    {2817, "Failed to configure the LAN over USB interface."},
    {2818, "The LAN over USB interface is not available on the target."},
    // SMM update and package transfer.
    {3073, "SMM update failed. The update package could not be transferred."},
    {3086, "SMM update failed. The SMM did not report the new firmware version."},
};

}  // namespace

const std::map<int, std::string>& FixedMessageTable() {
    static const std::map<int, std::string> table = [] {
        std::map<int, std::string> rows;
        for (const auto& row : kRows) rows[row.first] = row.second;
        return rows;
    }();
    return table;
}
