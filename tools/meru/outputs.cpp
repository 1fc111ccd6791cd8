#include "outputs.h"

#include <algorithm>

#include "output_paths.h"
#include "progress.h"

namespace meru_tool {

namespace {

constexpr int kGraceSec = 1;
constexpr int kFurtherSec = 10;

}  // namespace

Outputs::Outputs(const std::string& main, const std::vector<std::string>& further, const Diagnostics* diagnostics)
    : m_urls{main}, m_diagnostics(diagnostics) {
  m_urls.insert(m_urls.end(), further.begin(), further.end());
}

bool Outputs::any_live() const { return std::any_of(m_urls.begin(), m_urls.end(), &is_network); }

int Outputs::longest_opening_sec(int timeout_sec) const {
  const auto further = std::count_if(m_urls.begin() + 1, m_urls.end(), &is_network);
  return timeout_sec + kGraceSec + static_cast<int>(further) * std::max(timeout_sec, kFurtherSec);
}

Outputs::Shown Outputs::shown_output(size_t number) const {
  const std::string& url = m_urls[number];
  const Diagnostics::OutputState state = m_diagnostics->output(static_cast<int>(number));
  if (!state.failure.empty()) return {shown(url), "failed", state.failure};
  if (is_network(url)) return {shown(url), state.open ? "live" : "connecting", ""};
  return {shown(url), state.open ? "recording" : "opening", ""};
}

std::string Outputs::states() const {
  if (m_urls.size() == 1 && !any_live()) return {};
  std::string states;
  for (size_t i = 0; i < m_urls.size(); ++i) {
    const Shown output = shown_output(i);
    states.append(i > 0 ? ", " : "").append(output.name).append(" ").append(output.state);
    if (!output.failure.empty()) states.append(" (").append(output.failure).append(")");
  }
  return states;
}

std::vector<std::string> Outputs::further_failures() const {
  std::vector<std::string> texts;
  for (size_t i = 1; i < m_urls.size(); ++i) {
    const std::string failure = m_diagnostics->output(static_cast<int>(i)).failure;
    if (!failure.empty()) texts.push_back("the further output " + shown(m_urls[i]) + " failed: " + failure);
  }
  return texts;
}

}  // namespace meru_tool
