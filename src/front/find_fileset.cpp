#include "front/find_fileset.h"

#include "front/btrfs_fileset.h"

namespace front {

Fileset findFileset(const Place &given, bool to_change) {
  Place place = given;
  if (place.path.empty()) place.path = ".";
  return findBtrfsFileset(place, to_change);
}

}  // namespace front
