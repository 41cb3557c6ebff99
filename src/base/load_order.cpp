// What the module makes when it is loaded, in one file: within a file the order of making is the order of
// writing, whatever the linker does.
#include <new>

#include "src/base/base_thread.h"
#include "src/base/create_buffer.h"
#include "src/base/mem_alloctor_ex.h"
#include "src/base/mem_buffer.h"
#include "src/base/object_monitor.h"

namespace zumod {
namespace {

// Registered, but its objects are not counted: this row always reads 0. Kept as it is.
ADD_TO_MONITORING_LIST<CMemBuffer> g_MemBufferMonitor("CMemBuffer");
ADD_TO_MONITORING_LIST<CBaseThread> g_BaseThreadMonitor("CBaseThread");

}  // namespace

// Empty when memory is short: an exception has nowhere to go while a library is loaded.
CRefPtr_T<IMemAlloctor> g_pDefaultAlloctor(new (std::nothrow) CMemAlloctorEx<CMemBuffer>);

}  // namespace zumod
