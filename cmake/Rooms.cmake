# Which room may include which: "room=rooms that it sees". A room sees itself, and every room except base and formats
# sees kest.h. Rooms are folders of the include roots (the top, platform/ and src/). Neighbours such as plan and worker
# do not see each other.
set(FSETRESTORE_ROOMS
  base=
  formats=base
  diff=
  filesystem=base|diff
  btrfs=base|diff|filesystem
  cephfs=base|diff|filesystem
  detect=base|filesystem|btrfs|cephfs
  libkest=base|filesystem|detect
  commands=base|filesystem|detect
  engine=base|formats
  messages=
  run=base|formats|messages
  scan=base|messages|run
  records=base|messages|run|scan
  object=base|formats|messages|run|scan|records
  policy=base|formats|messages|run
  plan=base|formats|messages|run|scan|records|object
  worker=base|formats|messages|run|scan|records|object|policy
  restore=base|formats|messages|run|scan|records|object|policy|plan|worker
  fsetcompare=base|messages|run|scan|object
  front=base|formats|messages)
