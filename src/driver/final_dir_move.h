// Moving directories back to their snapshot paths.
#pragma once

// Works off dirMoveList. 0 or an errno. Master only.
int doFinalDirMove();
