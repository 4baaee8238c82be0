#include "IESGService.h"

IESGService::~IESGService() = default;
