// The commands, one function each, grouped into files by what they manage.
#ifndef DAXOCTL_COMMANDS_H
#define DAXOCTL_COMMANDS_H

#include "cli.h"

namespace daxoctl {

int Provision(const Options& options);
int Id(const Options& options);
int Ping(const Options& options);
int Deprovision(const Options& options);
int ResetIdentity(const Options& options);
int ReportError(const Options& options);

int SensorsList(const Options& options);
int SensorsCreate(const Options& options);
int SensorsRename(const Options& options);
int SensorsDelete(const Options& options);

int MetricsDefine(const Options& options);
int MetricsUpdate(const Options& options);
int MetricsDelete(const Options& options);
int MetricsDescribe(const Options& options);

int Push(const Options& options);
int Listen(const Options& options);

}  // namespace daxoctl

#endif
