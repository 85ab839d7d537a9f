#pragma once
// Export control for the classes and functions that SWLLib shares with other
// installer components. Consumers that link the import library see dllimport.
#if defined(SWLLIB_BUILDING)
#define SWLLIB_API __declspec(dllexport)
#elif defined(SWLLIB_STATIC)
#define SWLLIB_API
#else
#define SWLLIB_API __declspec(dllimport)
#endif

#ifndef UNICODE
#define UNICODE
#endif
#ifndef _UNICODE
#define _UNICODE
#endif
