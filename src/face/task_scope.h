// Work of the face on a task of its own.
#pragma once

#include "embed/task.h"
#include "face/run.h"

namespace tqnlp::face {

// Runs body and then last, which takes over log and tables, on a task. Returns 0, or the code with
// which the library ended the call.
template <class Body, class Last>
int run_on_task(embed::Task& task, const Body& body, const Last& last) {
  const embed::Activation activation(task);
  const embed::FrameScope frame(task);
  const embed::FlagKeeper flags;
  int exit_code = 0;
  try {
    body();
  } catch (const embed::ExitRequest& request) {
    exit_code = request.code;
  } catch (const embed::MathResume&) {  // to a point that is gone
    exit_code = -1;
  }
  embed::hand_on_open_tables(task);
  last();
  return exit_code;
}

}  // namespace tqnlp::face
