// The header lies in tests/support; this name stays until every include has followed it.
#include "support/server_support.h"
