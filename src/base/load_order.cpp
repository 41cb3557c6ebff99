// What the module makes when it is loaded, in one file: within a file the order of making is the order of
// writing, whatever the linker does.
#include "base/base_thread.h"
#include "base/create_buffer.h"
#include "base/mem_alloctor_ex.h"
#include "base/mem_buffer.h"
#include "base/object_monitor.h"

namespace zumod {
namespace {

// Registered, but its objects are not counted: this row always reads 0. Kept as it is.
ADD_TO_MONITORING_LIST<CMemBuffer> g_MemBufferMonitor("CMemBuffer");
ADD_TO_MONITORING_LIST<CBaseThread> g_BaseThreadMonitor("CBaseThread");

}  // namespace

CRefPtr_T<IMemAlloctor> g_pDefaultAlloctor(new CMemAlloctorEx<CMemBuffer>);

}  // namespace zumod
