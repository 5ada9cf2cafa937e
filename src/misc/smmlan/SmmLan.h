// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

#include "host/MorvelResult.h"
#include "host/UserContext.h"
#include "host/basic_app.h"

// The application object of the smmlan command: tries the SMM's Redfish
// service first and falls back to the SMM's vendor IPMI commands.
class SmmLan : public basic_app {
public:
    SmmLan();
    ~SmmLan() override;

    MorvelResult init(const UserContext& context) override;
    MorvelResult run() override;
    MorvelResult finish() override;

private:
    // True when the Redfish service settled the command, with its code in `result`;
    // false when the command has to go on to IPMI.
    bool RunRedfishStage(int32_t& result) const;
    MorvelResult RunIpmiStage() const;
};
