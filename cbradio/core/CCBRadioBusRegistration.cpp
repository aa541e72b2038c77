// CCBRadio: bringing the bus presence up at start and down at stop.
#include "CCBRadio.h"

int CCBRadio::initializeDBUSService()
{
    return 0;
}

int CCBRadio::deInitializeDBUSService()
{
    return 1;
}
