#include "app/run_state.h"

#include "app/grammar.h"

namespace dh {

namespace {
RunOptions g_options;
RunState g_state;
}  // namespace

RunOptions& Options() { return g_options; }
RunState& State() { return g_state; }

void ResetRun() {
  g_options = RunOptions();
  g_state = RunState();
  Arguments().Clear();
}

void AssignValueText(std::string& field, const std::string& text) {
  field.assign(text, 0, kValueTextSize - 1);
}

}  // namespace dh
