// The module's namespace-scope objects whose order of initialisation matters. Such objects of one translation
// unit are initialised in definition order; across units the order is unspecified. They are defined here
// together, so that the linker's order of files does not change the ids of the monitored classes.
//
// The only others are the locks of the singletons (see singleton.h), which depend on nothing.
#include <new>

#include "src/base/base_thread.h"
#include "src/base/create_buffer.h"
#include "src/base/mem_alloctor_ex.h"
#include "src/base/mem_buffer.h"
#include "src/base/object_monitor.h"

namespace zumod {
namespace {

// Required by the contract: registered, but its objects are not counted, so its row is always 0.
ADD_TO_MONITORING_LIST<CMemBuffer> g_MemBufferMonitor("CMemBuffer");
ADD_TO_MONITORING_LIST<CBaseThread> g_BaseThreadMonitor("CBaseThread");

}  // namespace

// Empty when memory is short: nothing can catch an exception while a library is loaded.
CRefPtr_T<IMemAlloctor> g_pDefaultAlloctor(new (std::nothrow) CMemAlloctorEx<CMemBuffer>);

}  // namespace zumod
