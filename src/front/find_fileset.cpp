#include "front/find_fileset.h"

#include <fcntl.h>

#include "base/unique_fd.h"
#include "front/btrfs_fileset.h"
#include "front/ceph_fileset.h"

namespace front {

Fileset findFileset(const Place &given, bool to_change) {
  Place place = given;
  if (place.path.empty()) place.path = ".";
  const UniqueFd object(open(place.path.c_str(), O_PATH | O_CLOEXEC));
  if (object && isOnCephFs(object.get())) return findCephFileset(place);
  return findBtrfsFileset(place, to_change);
}

}  // namespace front
