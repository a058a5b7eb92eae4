@echo off
rem install.cmd - puts the driver beside it into the driver store and onto the keyboards that are plugged in.
rem Exit status: that of pnputil (0 good, 3010 good after a restart), or 2 when a file is missing.
setlocal
set "DRIVER=%~dp0driver"
set "PNPUTIL=%SystemRoot%\System32\pnputil.exe"
if exist "%SystemRoot%\Sysnative\pnputil.exe" set "PNPUTIL=%SystemRoot%\Sysnative\pnputil.exe"

set "MISSING=Tv64USB.inf"
if not exist "%DRIVER%\%MISSING%" goto missing
set "MISSING=Tv64USB.sys"
if not exist "%DRIVER%\%MISSING%" goto missing
if not exist "%DRIVER%\Tv64USB.cat" goto unsigned
if not exist "%PNPUTIL%" goto old

"%PNPUTIL%" /add-driver "%DRIVER%\Tv64USB.inf" /install
set "STATUS=%ERRORLEVEL%"
if "%STATUS%"=="0" goto installed
if "%STATUS%"=="259" goto waiting
if "%STATUS%"=="3010" goto restart
if "%STATUS%"=="5" goto denied
for %%S in (577 -2146762496 -2146762487 -2146762486 -536870334 -536870333 -536870332 -536870325) do if "%STATUS%"=="%%S" goto untrusted
echo install: pnputil ended with %STATUS%, and nothing was changed unless it says so above.
echo          The reason stands at the end of %SystemRoot%\INF\setupapi.dev.log; look for Tv64USB there.
exit /b %STATUS%

:missing
echo install: driver\%MISSING% is missing. Unpack the whole package again.
exit /b 2

:unsigned
echo install: driver\Tv64USB.cat is missing: this package is not signed, and Windows installs no unsigned driver.
echo          docs\windows.txt tells how it is signed, for a test machine or for everybody.
exit /b 2

:installed
echo install: done. A keyboard that does not use the driver at once does when it is plugged in again.
exit /b 0

:waiting
echo install: the driver is in the store. No keyboard that it serves is plugged in now, or all have it already.
exit /b 0

:restart
echo install: done. Restart Windows to let the keyboards use the driver.
exit /b 3010

:denied
echo install: only an administrator can do this. Open a command prompt with "Run as administrator" and start it there.
exit /b 5

:old
echo install: there is no %PNPUTIL%. The driver needs Windows 10, version 1903 or later.
exit /b 2

:untrusted
echo install: Windows does not trust the signature (%STATUS%), and nothing was changed.
echo          Signed for tests: "bcdedit /set testsigning on", restart, and put the test certificate into the stores
echo          Root and TrustedPublisher of the machine. Otherwise ask for a package that Microsoft has signed.
exit /b %STATUS%
