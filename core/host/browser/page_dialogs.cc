#include "core/host/browser/page_dialogs.h"

#include "core/host/browser/json_field.h"

namespace varnic::host {

void AnswerPageDialogs(DevToolsPipe& devtools, const std::string& session_id) {
  // The pipe outlives its listeners.
  devtools.Listen(session_id, "Page.javascriptDialogOpening",
                  [&devtools, session_id](const nlohmann::json& params) {
                    const bool is_leaving = TextAt(params, "type") == "beforeunload";
                    devtools.Call(
                        {"Page.handleJavaScriptDialog", {{"accept", is_leaving}}, session_id},
                        [](const absl::StatusOr<nlohmann::json>&) {});
                  });
}

}  // namespace varnic::host
