// The multi-process tests start the small host program of tools/zrhost, built here as
// zrcommon_test_host until it has a target of its own.
#include "../../tools/zrhost/zrhost.cpp"
