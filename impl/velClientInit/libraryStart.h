/*
 * libraryStart.h - whether the library has been started: velClient_initialize
 * has run and velClient_cleanup has not run since.
 */
#pragma once

bool _velClient_isInitialised();
