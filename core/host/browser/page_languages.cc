#include "core/host/browser/page_languages.h"

#include <utility>

#include "core/host/browser/json_field.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;

constexpr absl::Duration kTime = absl::Seconds(5);
constexpr size_t kMaxPages = 3;

}  // namespace

void PageLanguages::Ask(std::vector<TargetSession> pages, Reply<std::string> reply) {
  const int number = ++last_number_;
  if (pages.size() > kMaxPages) pages.resize(kMaxPages);
  inquiries_[number] = {std::move(pages), std::move(reply)};
  AskNext(number);
}

// The page's scripts do not see into a world of its own.
void PageLanguages::AskNext(int number) {
  const auto it = inquiries_.find(number);
  if (it == inquiries_.end()) return;
  std::vector<TargetSession>& pages = it->second.pages;
  if (pages.empty()) {
    return Finish(number, absl::UnavailableError("no page of the profile tells its languages"));
  }
  const TargetSession page = std::move(pages.back());
  pages.pop_back();
  devtools_.Call(
      {"Page.createIsolatedWorld", {{"frameId", page.target_id}}, page.session_id, kTime},
      lifetime_.Guard(
          [this, number, session = page.session_id](const absl::StatusOr<Json>& answer) {
            OnWorld(number, session, answer);
          }));
}

void PageLanguages::OnWorld(int number, const std::string& session_id,
                            const absl::StatusOr<Json>& answer) {
  const Json* const world = answer.ok() ? FieldAt(*answer, "executionContextId") : nullptr;
  if (world == nullptr) return AskNext(number);
  Json params = {{"expression", "navigator.languages.join()"}, {"contextId", *world}};
  devtools_.Call({"Runtime.evaluate", std::move(params), session_id, kTime},
                 lifetime_.Guard([this, number](const absl::StatusOr<Json>& languages) {
                   OnLanguages(number, languages);
                 }));
}

void PageLanguages::OnLanguages(int number, const absl::StatusOr<Json>& answer) {
  const Json* const result = answer.ok() ? FieldAt(*answer, "result") : nullptr;
  const std::string list =
      result != nullptr && result->is_object() ? TextAt(*result, "value") : std::string();
  if (list.empty()) return AskNext(number);
  Finish(number, list);
}

void PageLanguages::Finish(int number, const absl::StatusOr<std::string>& list) {
  const auto node = inquiries_.extract(number);
  if (!node.empty()) node.mapped().reply(list);
}

void PageLanguages::FailAll(const absl::Status& why) {
  const std::map<int, Inquiry> inquiries = std::exchange(inquiries_, {});
  for (const auto& [number, inquiry] : inquiries) inquiry.reply(why);
}

}  // namespace varnic::host
