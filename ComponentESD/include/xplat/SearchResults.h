#ifndef ESD_XPLAT_SEARCHRESULTS_H
#define ESD_XPLAT_SEARCHRESULTS_H

// Everything a tree search needs: the result set and its three predicates.
#include "xplat/NodeAttr.h"
#include "xplat/NodeBoth.h"
#include "xplat/NodeName.h"
#include "xplat/SearchResult.h"

#endif
