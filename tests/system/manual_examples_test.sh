#!/usr/bin/env bash
# Runs the examples of the manual (docs/**/*.md) and compares what cvml prints
# with what the manual says it prints, so the manual cannot drift from the
# engine.  docs/README.md ("How the examples are checked") describes the forms:
#   - a ```cvml block followed, after optional prose, by an ```output block:
#     the page and the exact standard output of `cvml page.cvm`;
#   - ```file NAME, ```env and ```input blocks before a ```cvml block: a file
#     beside the page, VAR=value lines for the environment, standard input;
#   - a table whose header begins | Page | Message |: each row's page must
#     print the row's message as a line of its report.
# Usage: manual_examples_test.sh CVML [DOCS_DIR]   (DOCS_DIR: default docs/)
# Prints file:line for every mismatch and exits non-zero when there is one.
# Without DOCS_DIR it first runs itself on a page of faulty examples, to make
# sure that the checker still catches each kind of fault.
set -u
cvml=${1:?usage: manual_examples_test.sh CVML [DOCS_DIR]}
if [ $# -ge 2 ]; then exec perl -x "$0" "$cvml" "$2"; fi

faulty=$(mktemp -d "${TMPDIR:-/tmp}/cvml-manual-check.XXXXXX")
trap 'rm -rf "$faulty"' EXIT
cat > "$faulty/faulty.md" <<'MD'
```cvml
<CVDEBUG type="error">right
```

```output
Content-type: text/html

right
```

```cvml
<CVDEBUG type="error">wrong
```

```output
Content-type: text/html

right
```

| Page | Message |
|---|---|
| `<CVVAR>` | `CVVAR requires the 'var' option to be used.  See the Corvane documentation for details.` |
| `<CVVAR>` | `CVVAR requires the 'var' option.` |

```cvml
no output block follows
```
MD
report=$("$0" "$cvml" "$faulty")
status=$?
for line in "faulty.md:11: output differs from the output block at line 15:" \
            "faulty.md:24: the page does not print the message \"CVVAR requires the 'var' option.\"; it prints:" \
            "faulty.md:26: cvml block has no output block after it" \
            "4 examples, 2 failed, 1 malformed"; do
  if [ $status -eq 0 ] || ! grep -qF -- "$line" <<<"$report"; then
    echo "the checker no longer reports: $line"
    echo "its report on $faulty/faulty.md was:"
    echo "$report"
    exit 1
  fi
done

perl -x "$0" "$cvml" "$(cd "$(dirname "$0")/../../docs" && pwd)"
exit $?

#!perl
use strict;
use warnings;
use Cwd qw(abs_path);
use File::Path qw(make_path);
use File::Temp qw(tempdir);

my ($cvml, $docs) = @ARGV;
$cvml = abs_path($cvml);
-x $cvml or die "manual_examples_test: $ARGV[0] is not an executable\n";
-d $docs or die "manual_examples_test: no directory $docs\n";
$docs = abs_path($docs);
my $top = abs_path("$docs/..");
my $work = abs_path(tempdir('cvml-manual-XXXXXX', TMPDIR => 1, CLEANUP => 1));

# Each example: { where, page, expected, env[], input, files[[name, text]],
# kind => 'output' | 'message' }.
my @examples;
my @problems;

sub rel { my ($path) = @_; $path =~ s{^\Q$top\E/}{}; return $path; }

sub markdown_files {
  my ($dir) = @_;
  opendir(my $dh, $dir) or die "manual_examples_test: cannot read $dir: $!\n";
  my @names = sort grep { !/^\./ } readdir($dh);
  closedir($dh);
  my @found;
  for my $name (@names) {
    my $path = "$dir/$name";
    if (-d $path) { push @found, markdown_files($path); }
    elsif ($name =~ /\.md$/) { push @found, $path; }
  }
  return @found;
}

# The text of a table cell written as a code span, or undef.
sub code_span {
  my ($cell) = @_;
  $cell =~ s/^\s+|\s+$//g;
  $cell =~ s/\\\|/|/g;
  return undef unless $cell =~ /^(`+)(.*?)\1$/s;
  my $text = $2;
  $text = substr($text, 1, -1) if $text =~ /^ .* $/s && $text =~ /\S/;
  return $text;
}

sub table_cells {
  my ($line) = @_;
  $line =~ s/^\s*\|//;
  $line =~ s/\|\s*$//;
  return split /(?<!\\)\|/, $line, -1;
}

sub extract {
  my ($path) = @_;
  my $name = rel($path);
  open(my $fh, '<', $path) or die "manual_examples_test: cannot read $path: $!\n";
  my @lines = <$fh>;
  close($fh);
  chomp @lines;

  my $pending;        # the cvml example waiting for its output block
  my %prep = (env => [], input => undef, files => [], line => 0);
  my $in_messages = 0;  # inside a | Page | Message | table
  my $i = 0;
  while ($i < @lines) {
    my $line = $lines[$i];
    my $lineno = $i + 1;
    if ($line =~ /^(\s*)(`{3,}|~{3,})\s*(.*?)\s*$/) {
      my ($indent, $fence, $info) = (length($1), $2, $3);
      $in_messages = 0;
      my $char = substr($fence, 0, 1);
      my @content;
      my $j = $i + 1;
      my $closed = 0;
      while ($j < @lines) {
        if ($lines[$j] =~ /^\s*(\Q$char\E{3,})\s*$/ && length($1) >= length($fence)) { $closed = 1; last; }
        my $text = $lines[$j];
        $text =~ s/^ {0,$indent}//;
        push @content, $text;
        $j++;
      }
      if (!$closed) {
        push @problems, "$name:$lineno: code block is not closed";
        last;
      }
      my $body = join('', map { "$_\n" } @content);
      my ($kind, @attributes) = split ' ', $info;
      $kind //= '';
      if ($pending && $kind ne 'output') {
        push @problems, "$name:$pending->{line}: cvml block has no output block after it";
        undef $pending;
      }
      if ($kind eq 'cvml') {
        if (@attributes) { push @problems, "$name:$lineno: unknown words after cvml: @attributes"; }
        $pending = { where => "$name:$lineno", line => $lineno, page => $body, kind => 'output',
                     env => $prep{env}, input => $prep{input}, files => $prep{files} };
        %prep = (env => [], input => undef, files => [], line => 0);
      } elsif ($kind eq 'output') {
        if (!$pending) {
          push @problems, "$name:$lineno: output block without a cvml block before it";
        } else {
          my $expected = $body;
          for my $word (@attributes) {
            if ($word eq 'no-final-newline') { $expected =~ s/\n\z//; }
            else { push @problems, "$name:$lineno: unknown word after output: $word"; }
          }
          $pending->{expected} = $expected;
          $pending->{output_line} = $lineno;
          push @examples, $pending;
          undef $pending;
        }
      } elsif ($kind eq 'env' || $kind eq 'input' || $kind eq 'file') {
        $prep{line} ||= $lineno;
        if ($kind eq 'env') {
          push @{$prep{env}}, grep { length } @content;
        } elsif ($kind eq 'input') {
          $prep{input} = $body;
        } elsif (@attributes != 1 || $attributes[0] =~ m{(^/|(^|/)\.\.(/|$))}) {
          push @problems, "$name:$lineno: a file block needs one relative name below the page's directory";
        } else {
          push @{$prep{files}}, [$attributes[0], $body];
        }
      } elsif ($prep{line}) {
        push @problems, "$name:$prep{line}: file, env or input block is not followed by a cvml block";
        %prep = (env => [], input => undef, files => [], line => 0);
      }
      $i = $j + 1;
      next;
    }
    if ($line =~ /^\s*\|/) {
      my @cells = table_cells($line);
      if (!$in_messages && @cells >= 2 && $cells[0] =~ /^\s*page\s*$/i && $cells[1] =~ /^\s*message\s*$/i) {
        $in_messages = 1;
      } elsif ($in_messages && $line !~ /^\s*\|[\s:|-]*$/) {
        my $page = code_span($cells[0] // '');
        my $message = code_span($cells[1] // '');
        if (!defined $page || !defined $message) {
          push @problems, "$name:$lineno: a Page/Message row needs a code span in each of its first two cells";
        } else {
          push @examples, { where => "$name:$lineno", page => "$page\n", expected => $message,
                            kind => 'message', env => [], input => undef, files => [] };
        }
      }
    } else {
      $in_messages = 0;
    }
    $i++;
  }
  push @problems, "$name:$pending->{line}: cvml block has no output block after it" if $pending;
  push @problems, "$name:$prep{line}: file, env or input block is not followed by a cvml block" if $prep{line};
}

sub write_file {
  my ($path, $text) = @_;
  open(my $fh, '>:raw', $path) or die "manual_examples_test: cannot write $path: $!\n";
  print $fh $text;
  close($fh);
}

# Runs one example in a fresh directory; returns its standard output with the
# directory masked as @DIR@ and timings as " - Nms", and the exit status.
sub run_example {
  my ($example, $dir) = @_;
  make_path($dir);
  write_file("$dir/page.cvm", $example->{page});
  for my $file (@{$example->{files}}) {
    my ($name, $text) = @$file;
    (my $parent = "$dir/$name") =~ s{/[^/]*$}{};
    make_path($parent);
    write_file("$dir/$name", $text) unless $name =~ m{/$};
  }
  my $input = '/dev/null';
  if (defined $example->{input}) {
    $input = "$work/input";
    write_file($input, $example->{input});
  }
  my %env = (PATH => '/usr/bin:/bin');
  for my $var (qw(ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS)) {
    $env{$var} = $ENV{$var} if defined $ENV{$var};
  }
  for my $pair (@{$example->{env}}) {
    (my $text = $pair) =~ s/\@DIR\@/$dir/g;
    my ($key, $value) = split /=/, $text, 2;
    $env{$key} = $value // '';
  }
  my @args = defined $env{DOCUMENT_ROOT} ? () : ('page.cvm');
  my $pid = open(my $out, '-|') // die "manual_examples_test: fork: $!\n";
  if ($pid == 0) {
    chdir($dir) or die "chdir $dir: $!\n";
    open(STDIN, '<', $input) or die "$input: $!\n";
    %ENV = %env;
    alarm(20);  # a page that runs for ever is ended by SIGALRM
    exec($cvml, @args) or die "exec $cvml: $!\n";
  }
  binmode($out);
  local $/;
  my $actual = <$out> // '';
  close($out);
  my $status = ($? & 127) ? 128 + ($? & 127) : $? >> 8;
  $actual =~ s/\Q$dir\E/\@DIR\@/g;
  $actual =~ s/ - [0-9]+ms$/ - Nms/mg;
  return ($actual, $status);
}

sub message_found {
  my ($output, $message) = @_;
  for my $line (split /\n/, $output) {
    return 1 if $line eq $message;
    return 1 if $line =~ /^Error:  Error in <[^\n]*?>\.  (.*)$/ && $1 eq $message;
  }
  return 0;
}

sub show_difference {
  my ($expected, $actual) = @_;
  write_file("$work/expected", $expected);
  write_file("$work/actual", $actual);
  my $diff = `diff -u --label expected --label actual "$work/expected" "$work/actual" | cat -A | head -n 60`;
  print $diff;
}

for my $path (markdown_files($docs)) { extract($path); }

my $failures = 0;
my $count = 0;
for my $example (@examples) {
  $count++;
  my ($actual, $status) = run_example($example, "$work/run/$count");
  my $where = $example->{where};
  if ($status != 0) {
    print "$where: cvml exited with status $status (expected 0; 142 is the 20-second time-out)\n";
    $failures++;
  } elsif ($example->{kind} eq 'output') {
    next if $actual eq $example->{expected};
    print "$where: output differs from the output block at line $example->{output_line}:\n";
    show_difference($example->{expected}, $actual);
    $failures++;
  } elsif (!message_found($actual, $example->{expected})) {
    print "$where: the page does not print the message \"$example->{expected}\"; it prints:\n$actual\n";
    $failures++;
  }
}
print "$_\n" for @problems;
if (!@examples && !@problems) {
  print "no examples found under $docs\n";
  exit 1;
}
my $bad = $failures + @problems;
printf "%d examples, %d failed, %d malformed\n", scalar(@examples), $failures, scalar(@problems);
exit($bad ? 1 : 0);
