// The structures of the public C headers, with debug information for abi_test.
#include "kemd/module.h"
#include "kemd/module_switch_table.h"
#include "kemd/performance.h"
#include "kemd/services.h"
#include "kemd/trace_object.h"
#include "kemd/xml.h"

KEMD_API void Structures(struct KemdModule* module, struct KemdModuleV2* moduleV2,
                         struct KemdReply* reply, struct KemdTraceObject* traceObject,
                         struct ModuleLoadParams* params, struct ModuleSwitchTable* table,
                         const struct KemdSeriesDescription* description,
                         struct KemdSeriesInfo* info, struct KemdSeriesValue* value,
                         struct KemdXmlError* error, struct KemdXmlInfo* xmlInfo,
                         struct KemdXmlWriteOptions* options, struct KemdEncoding* encoding);

void Structures(struct KemdModule* module, struct KemdModuleV2* moduleV2, struct KemdReply* reply,
                struct KemdTraceObject* traceObject, struct ModuleLoadParams* params,
                struct ModuleSwitchTable* table, const struct KemdSeriesDescription* description,
                struct KemdSeriesInfo* info, struct KemdSeriesValue* value,
                struct KemdXmlError* error, struct KemdXmlInfo* xmlInfo,
                struct KemdXmlWriteOptions* options, struct KemdEncoding* encoding) {
    (void)module, (void)moduleV2, (void)reply, (void)traceObject, (void)params, (void)table;
    (void)description, (void)info, (void)value;
    (void)error, (void)xmlInfo, (void)options, (void)encoding;
}
