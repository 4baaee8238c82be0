#include "IPCS/IESGCallListener.h"

IESGCallListener::~IESGCallListener() = default;
