#!/usr/bin/perl
# Whether the manual says all that the sources say, and nothing that they do not.
#   covers.pl options|variables|routines|messages|environment|paths SOURCE_TREE
use strict;
use warnings;

my ($check, $tree) = @ARGV;
chdir $tree or die "covers: $tree: $!\n";
my $failures = 0;

sub complain { print STDERR "covers: $_[0]\n"; $failures++ }

sub content {
  my ($path) = @_;
  open my $file, '<', $path or die "covers: $path: $!\n";
  local $/;
  return scalar <$file>;
}

# The names of a file of exceptions, of which each has its reason behind it.
sub exceptions {
  my %reason_of;
  for (split /\n/, content("tests/man/$_[0]")) {
    next if /^#|^\s*$/;
    /^(.*\S)\s+--\s+(\S.*)$/ or die "covers: $_[0]: an exception without a reason: $_\n";
    $reason_of{$1} = $2;
  }
  return %reason_of;
}

# What stands in quotes in C++ source, put together where the compiler does, escapes undone.
sub string_of {
  my ($quoted) = @_;
  my $text = join '', $quoted =~ /"((?:[^"\\]|\\.)*)"/g;
  $text =~ s/\\n/\n/g;
  $text =~ s/\\(["\\])/$1/g;
  return $text;
}

sub without_comments {
  my ($source) = @_;
  $source =~ s{/\*.*?\*/}{}gs;
  $source =~ s{^((?:[^"\n]|"(?:[^"\\\n]|\\.)*")*?)//[^\n]*}{$1}gm;
  return $source;
}

# Every option of the table stands in tembrix(8), and every option that is explained there exists.
sub options {
  my $source = join '', map { content($_) } glob 'src/tool/option*.h src/tool/option*.cpp';
  my ($letters) = $source =~ /kShortOptions = "([^"]*)"/ or die "covers: no short options\n";
  my ($table) = $source =~ /\bk(?:Long)?Options\{\{(.*?)\}\};/s or die "covers: no option table\n";
  my %exists = map { $_ => 1 } grep { /\w/ } split //, $letters;
  $exists{"-$1"} = 1 while $table =~ /\{"([\w-]+)"/g;
  my %told;
  for (grep { /^\.It Fl/ } split /\n/, content('man/tembrix.8')) {
    $told{$1} = 1 while /Fl (-?[\w-]+)/g;
  }
  complain "tembrix(8) does not explain the option -$_" for grep { !$told{$_} } sort keys %exists;
  complain "tembrix(8) explains -$_, which does not exist" for grep { !$exists{$_} } sort keys %told;
  complain 'the option table was not found' if keys %exists < 20;
}

# Every variable of oxa.conf stands in oxa.conf(5) with its default and its index, and no other.
sub variables {
  my $source = content('src/conf/oxaconf.cpp');
  my ($names) = $source =~ /theOxaConfNames\[[^{]*\{(.*?)\}/s or die "covers: no names\n";
  my ($defaults) = $source =~ /theOxaConfDefauls\[[^{]*\{(.*?)\}/s or die "covers: no defaults\n";
  my @names = $names =~ /"([^"]*)"/g;
  my @defaults = $defaults =~ /"([^"]*)"/g;
  my @rows = map { "$names[$_] $defaults[$_] $_" } 1 .. $#names - 1;
  my @told = content('man/oxa.conf.5') =~ /^\.It Ev (\S+ Ta \S+ Ta \d+)$/gm;
  s/ Ta / /g for @told;
  complain 'the names were not found' if @rows < 29;
  complain "oxa.conf(5) differs from the source: @told[0 .. 0]..." if "@rows" ne "@told";
}

# The names that a public header declares: routines, members, classes, records and variables.
sub declared {
  my $source = without_comments($_[0]);
  $source =~ s/^\s*#.*(?:\\\n.*)*$//gm;
  $source =~ s/FRASK_PRINTF\([^)]*\)//g;
  my %names;
  $names{$1} = 1
    while $source =~ /\b(?:class|struct|enum)\s+(?:FRASK_API\s+)?(?:\w+::)*(\w+)[^;{(]*\{/g;
  $names{$1} = 1 while $source =~ /\bFRASK_API\s+extern\b[^;(]*?\b(\w+)(?:\[[^]]*\])?;/g;
  $names{$1} = 1 while $source =~ /\bextern\b[^;]*\(\*(\w+)\)/g;
  # What is called in an inline body, and what a constructor hands on, is not declared there.
  1 while $source =~ s/\b(?:return|\*this|static_assert)\b[^;{}]*;//g;
  $source =~ s/\)[^;{}]*?:\s*\w+\([^{]*\{/) {/g;
  $names{$1} = 1 while $source =~ /[\w&*>]\s+[*&]?~?(\w+)\s*\(/g;
  return keys %names;
}

# Every public name stands in some page of section 3.
sub routines {
  my %excepted = exceptions('names-that-are-not-public.txt');
  my %word;
  for my $page (glob 'man/*.3') {
    my $text = content($page);
    $text =~ s/^\.\\".*$//gm;
    $word{$_} = 1 for $text =~ /\w+/g;
  }
  my $seen = 0;
  for my $header (grep { !/\.private\.h$|unique_fd|dir_stream/ } glob 'src/*/*.h') {
    for my $name (declared(content($header))) {
      $seen++;
      next if delete $excepted{$name} or $word{$name};
      complain "no page of section 3 names $name of $header";
    }
  }
  for my $name (map { /^(\w+)(?: \[|$)/ ? $1 : () } split /\n/, content('tests/install/exported-symbols.txt')) {
    complain "no page of section 3 names the symbol $name" unless $word{$name};
  }
  complain "$_ is excepted, and nothing declares it" for sort keys %excepted;
  complain "only $seen names were found" if $seen < 200;
}

# A message's format as a pattern: what is filled in reads as one word, mostly in capitals.
sub pattern_of {
  my ($format) = @_;
  $format =~ s/\n+$//;
  $format =~ s/\n/ /g;
  my $pattern = join '[A-Za-z_]+', map { quotemeta } split /%(?:\.\*)?l?z?[a-z]/, $format, -1;
  return qr/^$pattern$/;
}

# The messages that a page explains, as they are read.
sub explained {
  my @messages;
  for (@_) {
    for (content($_) =~ /^\.It "(.*)"$/gm) {
      s/\\\(dq/"/g;
      s/\\[&-]//g;
      push @messages, $_;
    }
  }
  return @messages;
}

# The texts that a source reports.
sub reported {
  my $source = without_comments($_[0]);
  my $call = qr/\b(?:messlog2|frask_log|ex_messlog|printf|fprintf|dprintf|fputs|complain|\.write|failure\.write)
                \s*\(([^;]*?)\)\s*;/x;
  my @texts;
  while ($source =~ /$call/gs) {
    my $arguments = $1;
    my ($quoted) = $arguments =~ /("(?:[^"\\]|\\.)*"(?:\s*"(?:[^"\\]|\\.)*")*)/ or next;
    my $text = string_of($quoted);
    push @texts, $text if $text =~ /[a-z]{2}/i && $text !~ /^%[-.*\w]+:? ?$/;
  }
  return @texts;
}

# Every message of the tool, and of the rooms whose routines it calls, stands in tembrix(8); every
# other one in some page; and tembrix(8) explains none that nothing reports.
sub messages {
  my %excepted = exceptions('messages-not-of-the-tool.txt');
  my @of_tool = explained('man/tembrix.8');
  my @of_all = explained(glob 'man/*.[358]');
  my %reported;
  for my $source (glob 'src/*/*.cpp') {
    next if $source =~ m{^src/vhost/};  # these lines are formed piece by piece
    $reported{$_} = $source for reported(content($source));
  }
  for my $format (sort keys %reported) {
    my $pattern = pattern_of($format);
    (my $line = $format) =~ s/\n+$//;
    $line =~ s/\n/ /g;
    next if grep { $_ =~ $pattern } @of_tool;
    complain "no page explains \"$line\" of $reported{$format}" unless grep { $_ =~ $pattern } @of_all;
    complain "tembrix(8) does not explain \"$line\" of $reported{$format}" unless delete $excepted{$line};
  }
  complain "\"$_\" is excepted without need" for sort keys %excepted;
  my @patterns = map { pattern_of($_) } keys %reported;
  for my $message (@of_tool) {
    next if $message =~ /^tembrix: /;  # the C library's
    complain "nothing reports \"$message\", which tembrix(8) explains"
      unless grep { $message =~ $_ } @patterns;
  }
  complain 'hardly any message was found' if keys %reported < 80;
}

# A section of a page, without its heading.
sub section {
  my ($page, $name) = @_;
  my ($text) = content($page) =~ /^\.Sh \Q$name\E\n(.*?)(?=^\.Sh |\z)/ms
    or die "covers: $page has no section $name\n";
  return $text;
}

# The words behind a macro that begins a line.
sub marked {
  my ($macro, $text) = @_;
  return map { split /[ ,]+/, $_ } $text =~ /^\.$macro (.*)$/gm;
}

# Every variable that the tool sets or removes for the programs that it runs heads an item of
# ENVIRONMENT in tembrix(8), and is not among those said to be handed on.
sub environment {
  my ($items, $rest) = section('man/tembrix.8', 'ENVIRONMENT') =~ /^\.Bl (.*?)^\.El$(.*)/ms
    or die "covers: ENVIRONMENT has no list\n";
  my %told = map { $_ => 1 } marked('It Ev', $items);
  my %handed_on = map { $_ => 1 } marked('Ev', $rest);
  my %changed;
  for my $source (glob 'src/tool/*.cpp') {
    $changed{$_} = $source
      for without_comments(content($source)) =~ /\b(?:un)?setenv\(\s*"?(\w+)"?/g;
  }
  for my $name (sort keys %changed) {
    complain "ENVIRONMENT of tembrix(8) does not explain $name of $changed{$name}" unless $told{$name};
    complain "tembrix(8) says that $name is handed on, which $changed{$name} changes" if $handed_on{$name};
  }
  complain 'hardly any variable was found' if keys %changed < 3;
}

# The compiled-in paths of one or more sources, but for the defaults that "variables" compares.
sub paths_in {
  my %paths;
  for my $file (@_) {
    my $source = without_comments(content($file));
    $source =~ s/theOxaConfDefauls\[[^{]*\{.*?\};//s;
    $paths{$_} = $file for $source =~ m{"(/[^"]+)"}g;
  }
  return %paths;
}

# Every path that is compiled in stands under FILES of tembrix(8), and those of the settings in their
# own pages as well; and what stands there is such a path, or lies below a variable's default.
sub paths {
  my %told = map { my $page = $_; $page => { map { $_ => 1 } marked('It Pa', section($page, 'FILES')) } }
    qw(man/tembrix.8 man/oxa.conf.5 man/dsn.ini.5);
  my %of_settings = paths_in(glob 'src/conf/*.cpp');
  my %of_all = (paths_in(glob 'src/tool/*.cpp src/tool/*.h'), %of_settings);
  for my $path (sort keys %of_all) {
    complain "FILES of tembrix(8) lacks $path of $of_all{$path}" unless $told{'man/tembrix.8'}{$path};
  }
  for my $path (sort keys %of_settings) {
    complain "neither FILES of oxa.conf(5) nor that of dsn.ini(5) has $path of $of_settings{$path}"
      unless $told{'man/oxa.conf.5'}{$path} or $told{'man/dsn.ini.5'}{$path};
  }
  my ($defaults) = content('src/conf/oxaconf.cpp') =~ /theOxaConfDefauls\[[^{]*\{(.*?)\};/s
    or die "covers: no defaults\n";
  my @roots = $defaults =~ m{"(/[^"]+)"}g;
  for my $page (sort keys %told) {
    for my $path (grep { m{^/} } sort keys %{$told{$page}}) {
      next if $of_all{$path} or grep { index($path, "$_/.skel/") == 0 } @roots;
      complain "FILES of $page has $path, which no source has";
    }
  }
  complain 'hardly any path was found' if keys %of_all < 6 or keys %of_settings < 3;
}

my %checks = (options => \&options, variables => \&variables, routines => \&routines,
              messages => \&messages, environment => \&environment, paths => \&paths);
($checks{$check // ''} or die "covers: no such check\n")->();
exit($failures ? 1 : 0);
