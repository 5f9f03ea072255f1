// How often a registry refused this process's adds because its stamps were stale.
#pragma once

int stale_adds();
