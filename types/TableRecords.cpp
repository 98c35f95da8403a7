#include "types/TableRecords.h"

namespace VeskTapAgg {

fmt::format_context::iterator TcamAction::formatTo(fmt::format_context::iterator out) const {
  out = fmt::format_to(out, "{}", ActionKind(kind));
  if (ActionKind(kind) == ActionKind::redirect) {
    out = fmt::format_to(out, " {}={}", flagHas(lag) ? "lag" : "port", redirectPort);
  }
  if (flagHas(vlanPush)) out = fmt::format_to(out, " vlanPush={}", vlanId);
  if (flagHas(vlanRewrite)) out = fmt::format_to(out, " vlanRewrite={}", vlanId);
  if (flagHas(truncate)) out = fmt::format_to(out, " truncate={}", truncateLength);
  if (flagHas(count)) out = fmt::format_to(out, " count={}", counterId);
  if (flagHas(mirror)) out = fmt::format_to(out, " mirror={}", mirrorSession);
  return out;
}

}  // namespace VeskTapAgg
