// Prints the title of the programme on air now: query SERVICE-ID

#include <ESGAPI.h>
#include <ESGFailure.h>
#include <IESGService.h>

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: query SERVICE-ID\n";
    return 2;
  }
  try {
    FCESGProgramInfo program;
    if (ESGAPI::GetESGServiceAPI()->GetPresentProgram(argv[1], program)) {
      std::cout << program.Title() << '\n';
      return 0;
    }
  } catch (const std::exception&) {  // an unreadable reply; the reason is then Unreadable
  }
  std::cerr << "query: " << ESGFailureText(ESGLastFailure().reason) << '\n';
  return 1;
}
