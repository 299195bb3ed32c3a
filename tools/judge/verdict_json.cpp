// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/verdict_json.h"

namespace tool {

Json describe(const Verdict& verdict, const std::string& input) {
    Json out{{"api", word(verdict.api)},     {"medium", word(verdict.kind)},
             {"opens", verdict.opens},       {"plays", verdict.plays()},
             {"outcome", verdict.outcome()}, {"reason", word(verdict.reason)}};
    if (verdict.tried) {
        out["status"] = verdict.status;
        out["status_text"] = kst_StatusString(verdict.status);
    }
    if (verdict.track_id != 0) out["track_id"] = verdict.track_id;
    if (verdict.seeks_elsewhere) out["seeks_elsewhere"] = true;
    if (!verdict.why.empty()) out["why"] = verdict.why;
    if (!verdict.fix.empty()) out["fix"] = fix_command(verdict, input);
    return out;
}

}  // namespace tool
