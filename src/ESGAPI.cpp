#include "ESGAPI.h"

#include "ESGService_Proxy.h"

IESGService* ESGAPI::GetESGServiceAPI() { return ESGService_Proxy::Instance(); }
