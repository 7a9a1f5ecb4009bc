#pragma once

// The foundation's headers in one, for users outside this tree. Inside the tree each file includes
// what it uses.
#include "byte_order.h"
#include "byte_reader.h"
#include "debug_print.h"
#include "exit_status.h"
#include "genrand.h"
#include "indconfig.h"
#include "indgen_file.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_path.h"
#include "indgen_process.h"
#include "indgen_quote.h"
#include "indgen_string.h"
#include "indgen_tempname.h"
#include "indgeninit.h"
#include "indsharedlib.h"
#include "indsort.h"
#include "indview.h"
