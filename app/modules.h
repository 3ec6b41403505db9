/*
 * The daemon's modules: process-wide objects, made and registered in one place.
 */
#pragma once

/* Enters every module in the router's table. Once, before the first module is started. */
void RegisterModules();
