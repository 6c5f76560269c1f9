// Identifiers of kestmon.dll's string resources.
#pragma once

#define IDS_MONITOR_NAME 104
#define IDS_PORT_DESCRIPTION 105
