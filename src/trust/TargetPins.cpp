// SPDX-License-Identifier: GPL-3.0-or-later
#include "trust/TargetPins.h"

#include <string>

namespace Trust {

void ResolvePins(const std::shared_ptr<KnownSmms>& store, Plexum::TrustSettings& settings) {
    if (settings.verify != Plexum::TlsVerify::Pin && settings.verify != Plexum::TlsVerify::Tofu) return;
    const KnownSmms::Found found = store->Find(settings.key);
    settings.knownSmmsError = found.error;
    if (found.entry) settings.recorded = Plexum::RecordedPin{found.entry->pin, found.entry->firstSeen};
    if (settings.verify != Plexum::TlsVerify::Tofu) return;
    settings.recordFirstPin = [store, key = settings.key](const std::string& pin) {
        Plexum::PinRecording recording;
        const KnownSmms::Change added = store->Add(key, pin, KnownSmms::UtcNow());
        if (added.outcome == KnownSmms::Outcome::Failed) {
            recording.error = added.error;
        } else {
            // Another run may have recorded it a moment ago: its pin is the one that counts.
            recording.recorded = Plexum::RecordedPin{added.pin, added.firstSeen};
        }
        return recording;
    };
}

}  // namespace Trust
