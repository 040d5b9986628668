/* The floor for a CGI response: a process that prints hello.cvm's response
   without doing any work, to show what process start-up alone costs. */
#include <stdio.h>

int main(void) {
  fputs("Content-type: text/html\n\n"
        "<html>\n"
        "<head><title>Hello</title></head>\n"
        "<body>\n"
        "<h1>Hello, World!</h1>\n"
        "<p>Arithmetic works.</p>\n"
        "</body>\n"
        "</html>\n",
        stdout);
  return 0;
}
