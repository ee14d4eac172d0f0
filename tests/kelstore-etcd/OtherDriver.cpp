#include "kelstore/etcd/Driver.h"

extern "C" const Kelstore::Etcd::DriverEntry trelEtcdDriver;
const Kelstore::Etcd::DriverEntry trelEtcdDriver = {"0.0.1-other", nullptr};
