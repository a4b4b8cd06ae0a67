#include "EdsSdk.h"
// The interface is abstract; this unit anchors the library so that it exists
// before the tables are added beside it.
