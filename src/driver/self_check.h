// Refusals before anything is touched. Master only.
#pragma once

// The program, its library and the commands of the file system must be there and outlive the restore;
// the fileset must be writable; every node must be this machine. A writable snapshot is only warned
// about. 0, or an errno after a message.
int selfCheck();

// Nothing may be mounted on what the restore would have to touch. Once the scans are open; computes the
// difference. 0, or an errno after a message.
int mountCheck();
