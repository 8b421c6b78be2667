// Marks what the base layer offers to programs that link libkym: on Windows
// the DLL exports it (and its users import it); elsewhere it stays visible.
// The base objects are compiled with BASE_BUILDING; a program that carries
// them built in, instead of linking the DLL, defines BASE_STATIC_DEFINE.
#pragma once

#if defined(_WIN32) && !defined(BASE_STATIC_DEFINE)
#ifdef BASE_BUILDING
#define BASE_EXPORT __declspec(dllexport)
#else
#define BASE_EXPORT __declspec(dllimport)
#endif
#elif defined(_WIN32)
#define BASE_EXPORT
#else
#define BASE_EXPORT __attribute__((visibility("default")))
#endif
