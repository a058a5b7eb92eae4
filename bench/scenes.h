// scenes.h - what is measured, each by its name: a machine in one state, and one thing that is done to it over and
// over.
#pragma once

#include <functional>
#include <memory>
#include <string>

// One block of a scene: does the thing some hundred times and returns nanoseconds for one.
using Block = std::function<double()>;

// Makes the scene's machine, which stays until the process ends. Null for a name that nobody knows.
Block MakeScene(const std::string& name);
Block MakeRequestScene(const std::string& part); // requests.cpp
Block MakeReplayScene();                         // replay.cpp
