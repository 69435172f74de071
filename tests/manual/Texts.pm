# Texts: the string literals of C++ sources, for the tests that hold them against something else.
package Texts;
use strict;
use warnings;
use Exporter 'import';
our @EXPORT = qw(slurp files source_files test_files without_comments quoted unquoted is_sentence);

# One literal, and adjacent ones, which are one text.
our $literal = qr/"(?:\\.|[^"\\])*"/s;
our $run = qr/$literal(?:\s*$literal)*/s;
our $conversion = qr/%(?:\.\*)?l?z?[sduic]/;

sub slurp { my ($path) = @_; local (@ARGV, $/) = ($path); return scalar <> }

sub files { my ($folder) = @_; return sort grep { /\.(?:cc|h|inc)$/ } split /\n/, `find '$folder' -type f` }

sub source_files
{
    my ($source) = @_;
    return map { files("$source/$_") } qw(restore responder_store handlers_store panel exec common);
}

sub test_files { my ($source) = @_; return grep { !m{/(?:fuzz|torture)/} } files("$source/tests") }

sub without_comments
{
    my ($code) = @_;
    $code =~ s{($literal|'(?:\\.|[^'\\])+')|//[^\n]*|/\*.*?\*/}{$1 // ' '}ges;
    return $code;
}

# The text of a run of literals.
sub unquoted
{
    my ($run) = @_;
    my %escapes = (n => "\n", t => "\t", r => "\r", 0 => "\0");
    my $text = join '', map { substr $_, 1, -1 } $run =~ /$literal/g;
    $text =~ s{\\(.)}{$escapes{$1} // $1}ges;
    return $text;
}

# The literal of a text.
sub quoted
{
    my ($text) = @_;
    my %escapes = ("\n" => '\n', "\t" => '\t', "\r" => '\r', "\0" => '\0', '"' => '\"', '\\' => '\\\\');
    return '"' . $text =~ s{([\n\t\r\0"\\])}{$escapes{$1}}gr . '"';
}

# What reads like words to somebody, and not like SQL.
sub is_sentence
{
    my ($text) = @_;
    return $text =~ / / && $text =~ /[A-Za-z]{3}/
        && $text !~ /^(?:SELECT|REPLACE|INSERT|DELETE|BEGIN|END|CREATE|SET NAMES|select)\b/;
}

1;
