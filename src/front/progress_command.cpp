// fset progress: shows how far the restore of a fileset is.
#include <unistd.h>

#include <cmath>
#include <cstdio>

#include "front/commands.h"
#include "front/find_fileset.h"
#include "front/json.h"
#include "front/live_line.h"
#include "front/run_watch.h"
#include "front/text.h"
#include "messages/front_texts.h"

namespace front {

namespace {

constexpr useconds_t kLookEvery = 500'000;

Json jsonOf(const Progress &progress) {
  Json object;
  object["pid"] = progress.pid;
  putName(&object, "work_directory", progress.work_directory);
  object["phase"] = progress.phase;
  object["pass"] = progress.pass;
  object["done"] = progress.done;
  object["total"] = progress.total;
  object["per_second"] = std::round(progress.per_second);
  object["seconds_left"] = progress.seconds_left ? Json(*progress.seconds_left) : Json();
  return object;
}

// Looks twice, because a rate needs two samples.
std::optional<Progress> lookTwice(RunWatch *watch) {
  const auto first = watch->look();
  if (!first) return first;
  usleep(kLookEvery);
  const auto second = watch->look();
  return second ? second : first;
}

}  // namespace

int progressCommand(const Request &request) {
  const Fileset fileset = findFileset(request.place, false);
  RunWatch watch(fileset.root.get());
  LiveLine live;
  auto progress = lookTwice(&watch);
  if (request.json) {
    Json object{{"command", request.command}, {"fileset", front::jsonOf(fileset)}};
    object["running"] = progress.has_value();
    object["progress"] = progress ? jsonOf(*progress) : Json();
    print(object);
    return progress ? kDone : kNotDone;
  }
  if (!progress) {
    printf("%s\n", frontText(FrontText::kNoRestoreRuns, shown(fileset.name())).c_str());
    flushOutput();
    return kNotDone;
  }
  if (!live.on()) {
    printf("%s\n", progressText(*progress).c_str());
    flushOutput();
    return kDone;
  }
  for (; progress; progress = watch.look()) {
    live.show(progressText(*progress));
    usleep(kLookEvery);
  }
  live.clear();
  printf("%s\n", frontText(FrontText::kRestoreEnded).c_str());
  flushOutput();
  return kDone;
}

}  // namespace front
